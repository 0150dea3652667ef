// Which pictures are stored, and how they come back.
#include "tests/tools/tool_test.h"

namespace {

class Picture : public FolderTest {};

TEST_F(Picture, OfAnotherKindIsRefused) {
    writeFile("p", makeBmp({9, 3, 4}));
    writeFile("whole", makeBmp({9, 3, 1}));
    writeFile("long", makeBmp({16380, 1, 24}));
    writeFile("deep", makeBmp({16, 1, 16}));
    runScript((slowBuild ? "step=7" : "step=3") + std::string(R"sh(
while IFS='|' read -r why place bytes; do
    cp p wrong; poke wrong $place $bytes
    refuses <<<"1|$why|store a.kal wrong"
done <<'END'
neither a BMP nor a PNG file|0|42 41
begin inside its headers|10|14 0 0 0
begin inside its headers|10|0 0 0 0
begin behind its end|10|FF FF FF FF
ends inside its pixels|10|77 0 0 0
header of 0 bytes|14|0 0 0 0
header of 13 bytes|14|D 0 0 0
header of 4294967295 bytes|14|FF FF FF FF
ends inside its headers|14|A0 F 0 0
measures 0 x 3|18|0 0 0 0
measures -9 x 3|18|F7 FF FF FF
ends inside its pixels|18|0 0 1 0
measures 9 x 0|22|0 0 0 0
ends inside its pixels|22|0 0 0 80
ends inside its pixels|22|FF FF FF 7F
ends inside its pixels|22|1 0 FF FF
0 colour planes|26|0 0
15 bits per pixel|28|F 0
0 bits per pixel|28|0 0
method 1|30|1 0 0 0
palette of 4294967295 colours|46|FF FF FF FF
palette of 1073741825 colours|46|1 0 0 40
END
for ((length = $(stat -c %s whole) - 1; length >= 0; length -= step)); do
    truncate -s $length whole; refuses <<<'1|: it|store a.kal whole'
done
refuses <<'END'
1|long: it does not fit DIB operations|store --dib a.kal long
1|deep: it does not fit DIB operations|store --dib a.kal deep
END
)sh"));
}

// 96 MB of zeros through a program that may have 40 of its own, the stacks of its threads included.
TEST_F(Picture, IsNeverHeldWhole) {
    Bytes headers = makeBmp({4000, 1, 24});
    headers.resize(54);
    setNumber(headers, 22, 4, 8000);
    writeFile("p.bmp", headers);
    runScript(std::string("truncate -s 96000054 p.bmp\n") + (slowBuild ? "" : "ulimit -d 40000\n") + R"sh(
kal store a.kal p.bmp
kal store --dib b.kal p.bmp
kal extract a.kal 1 -o - | cmp - p.bmp)sh");
}

// Of 5 bits a PNG of 8 has the nearest; 1 and 4 bits are not stretched to all that there is by the one that compares.
TEST_F(Picture, OfAnotherProgramComesBackPixelByPixel) {
    if (std::system("command -v compare convert >/dev/null") != 0)
        GTEST_SKIP() << "ImageMagick is not installed";
    runScript(R"sh(
convert -size 61x47 -seed 1 plasma:red-blue -depth 8 PNG24:s.png
convert -size 61x47 gradient:white-black -rotate 180 -depth 8 g.png
convert s.png \( g.png -alpha off \) -compose CopyOpacity -composite -depth 8 PNG32:a.png
palette='-colors 16 -type palette'
convert s.png -monochrome BMP3:b1.bmp
convert s.png $palette -compress None BMP3:b4.bmp
convert s.png -colors 200 -type palette -compress None -write BMP3:b8.bmp -compress RLE BMP3:r8.bmp
convert s.png $palette BMP2:c4.bmp
convert s.png -write BMP2:c24.bmp -write BMP3:b24.bmp BMP:v24.bmp
convert a.png BMP:v32.bmp
convert s.png -define bmp:subtype=RGB565 BMP:16-565.bmp
convert s.png -define bmp:subtype=RGB555 BMP:16-555.bmp
convert a.png -define bmp:subtype=ARGB4444 BMP:x4444.bmp
convert a.png -define bmp:subtype=ARGB1555 BMP:x1555.bmp
convert g.png -monochrome -define png:bit-depth=1 -define png:color-type=0 g1.png
convert g.png +dither -posterize 4 -depth 2 -define png:bit-depth=2 -define png:color-type=0 g2.png
convert g.png +dither -posterize 16 -depth 4 -define png:bit-depth=4 -define png:color-type=0 g4.png
for n in 3 9 99; do convert s.png +dither -colors $n PNG8:p$n.png; done
convert a.png PNG8:t8.png
convert g.png -alpha set -channel A -evaluate set 50% -define png:color-type=4 ga.png
convert s.png -fill white -opaque black -transparent 'rgb(70,60,80)' -define png:color-type=2 PNG24:t24.png
convert s.png -interlace PNG PNG24:i24.png
convert a.png -interlace PNG PNG32:i32.png
convert s.png PNG48:w48.png
convert a.png PNG64:w64.png
convert -size 61x47 gradient:white-black -define png:bit-depth=16 -define png:color-type=0 w16.png
# Runs of four bits, as nobody writes them: even and odd, as they are, past the row's end, a jump, an end too early.
runs() {
    printf 'BM\x98\0\0\0'; head -c 30 b4.bmp | tail -c +7; printf '\2\0\0\0\x22\0\0\0'; head -c 118 b4.bmp | tail -c +39
    printf '\x3d\x12\0\0\4\x34\0\3\x56\x70\0\5\x12\x34\x50\0%b\x9a\0\0\5\x78\0\2\4\2\3\xcd\0\0\6\xef\0\1' $1
}
runs '\x31' >r4.bmp; runs '\x7f' >over
kal store r.kal r4.bmp over 2>notes >ids
kal extract r.kal 1 -o - | cmp - <(kal extract r.kal 2 -o -)
kal store a.kal *.bmp *.png >ids 2>notes
[ "$(cat notes)" = $'kal: r4.bmp and 1 more: comes back without run-length compression
kal: a.png and 16 more: only the pixels come back, no other bytes' ]
kal store --plain b.kal *.bmp *.png >ids 2>notes
mkdir own png plain; kal extract a.kal --all -o own >ids; kal extract a.kal --all --png -o png >ids; kal extract b.kal --all -o plain >ids
i=0
for f in *.bmp *.png; do
    i=$((++i)); kind=${f##*.}
    cmp own/$i.$kind plain/$i.$kind
    for out in own/$i.$kind $([[ $f == *.png || $f == x* ]] || echo png/$i.png); do
        [[ $f != 16-* || $out == own* ]] && fuzz=0 || fuzz=0.4%
        [[ "$(compare -fuzz $fuzz -metric AE $f $out null: 2>&1)" == 0?(c*) ]] # that the runs end early it says too
    done
    case $f in
    r*.bmp) ;;
    *.bmp) cmp $f own/$i.bmp ;;
    w*.png) fails 1 'its samples of 16 bits fit a PNG file only' kal extract a.kal $i -o out.bmp ;;
    *) kal extract a.kal $i -o out.bmp; [ "$(compare -metric AE $f out.bmp null: 2>&1)" = 0 ] ;;
    esac
done)sh");
}

} // namespace
