#version 3.7;
global_settings { assumed_gamma 1.0 max_trace_level 12 }
camera { location <0, 3.0, -10> look_at <0, 0.9, 0> right x*4/3 angle 42 }
light_source { <-8, 12, -10>, rgb 1.1 area_light <2,0,0>, <0,0,2>, 4, 4 adaptive 1 jitter }
light_source { <10, 6, -4>, rgb <0.35, 0.30, 0.25> }
sky_sphere { pigment { gradient y color_map { [0 rgb <0.95,0.80,0.65>] [0.35 rgb <0.45,0.60,0.85>] [1 rgb <0.10,0.18,0.42>] } } }
plane { y, 0 pigment { checker rgb <0.92,0.90,0.85>, rgb <0.25,0.30,0.38> } finish { reflection 0.12 diffuse 0.8 } }
sphere { <-1.9, 1.1, 0.4>, 1.1 pigment { rgb <0.85,0.15,0.12> } finish { phong 0.9 phong_size 60 reflection 0.15 } }
sphere { <0.3, 0.8, -1.4>, 0.8 pigment { rgbt <0.95,0.98,1,0.92> } finish { reflection { 0.05, 0.6 fresnel } conserve_energy phong 1 } interior { ior 1.5 } }
sphere { <1.9, 1.3, 1.2>, 1.3 pigment { rgb 0.15 } finish { reflection 0.75 phong 0.8 } }
torus { 0.75, 0.25 rotate x*70 translate <2.4, 0.55, -1.7> pigment { rgb <0.95,0.70,0.15> } finish { metallic phong 0.9 reflection 0.25 } }
cone { <-3.1, 0, -1.5>, 0.6, <-3.1, 1.5, -1.5>, 0 pigment { wood color_map { [0 rgb <0.55,0.33,0.15>] [1 rgb <0.80,0.58,0.32>] } scale 0.2 } finish { phong 0.3 } }
