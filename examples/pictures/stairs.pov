#version 3.7;
global_settings { assumed_gamma 1.0 }
camera { location <0, 8, -17> look_at <0, 3.4, 0> right x*4/3 angle 40 }
light_source { <-9, 14, -8>, rgb 0.9 area_light <3,0,0>, <0,0,3>, 4, 4 adaptive 1 jitter }
background { rgb 0.75 }
plane { y, 0 pigment { rgb 0.8 } finish { diffuse 0.7 } }
cylinder { <0,0,0>, <0,6.4,0>, 0.35 pigment { rgb 0.5 } finish { phong 0.7 } }
#declare I = 0;
#while (I < 22)
  box { <0.2, 0, -0.45>, <3, 0.16, 0.45> rotate y*(I*-24) translate y*(I*0.28+0.2) pigment { rgb 0.9 } finish { phong 0.4 } }
  cylinder { <2.85, 0, 0>, <2.85, 0.9, 0>, 0.04 rotate y*(I*-24) translate y*(I*0.28+0.3) pigment { rgb 0.15 } }
  sphere { <2.85, 0.95, 0>, 0.1 rotate y*(I*-24) translate y*(I*0.28+0.3) pigment { rgb 0.1 } }
  #declare I = I + 1;
#end
