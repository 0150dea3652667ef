// Archives as a person uses them, from the first picture to the last.
#include "tests/tools/tool_test.h"

namespace {

class Archive : public FolderTest {
protected:
    // in/1.bmp, in/2.bmp, ...
    static void writePictures(const std::vector<BmpKind>& kinds) {
        runScript("mkdir in out");
        for (uint32_t id = 1; id <= kinds.size(); id++)
            writeFile("in/" + std::to_string(id) + ".bmp", makeBmp(kinds[id - 1], id));
    }
};

TEST_F(Archive, GivesBackPicturesOfEveryDepthOrderHeaderAndRowEnd) {
    std::vector<BmpKind> kinds = {
        {5, 4, 8, 12},
        {5, 4, 1, 12, 7, 9, true},
        {6, 4, 24, 12, 0, 0, true},
        {5, -4, 4, 16},
        {5, 4, 8, 64},
        {5, -4, 8, 108, 3},
        {5, 4, 24, 124, 0, 70000},        // a colour profile behind the rows, longer than an operation
        {5, 4, 8, 40, 140000},            // a gap longer than two operations
        {5, 4, 8, 40, 0, 0, false, 3},    // few colours
        {5, 4, 8, 40, 0, 0, false, 300},  // more than the depth has
        {5, 4, 24, 40, 0, 0, false, 256}, // colours that 24 bits do not need
        {16378, -2, 24, 40, 0, 0, true},  // the longest row that fits an operation
        {65518, 2, 8},                    // and at 8 bits
        {65535, 3, 1, 40, 0, 1, true},
        {1, 65535, 1, 40, 0, 0, true}, // several bands, and the most rows
        {301, -700, 8, 40, 0, 0, true},
        {200, 300, 24},
        {900, 600, 24, 40, 0, 0, true}, // large enough for a thread of its own
        {50, 40, 16},
        {50, 40, 32},
    };
    for (uint32_t bits : {1U, 4U, 8U, 24U})
        for (uint32_t width : {1U, 2U, 3U, 7U, 9U, 17U, 34U}) {
            const auto turn = static_cast<uint32_t>(kinds.size());
            kinds.push_back({width, turn % 2 == 0 ? 1 : -5, bits, 40, turn % 4 == 1 ? turn : 0,
                             turn % 5 == 2 ? turn : 0, turn % 3 == 0});
        }
    writePictures(kinds);
    Bytes cut = makeBmp({40, 40, 8}); // a palette cut short by its rows
    setNumber(cut, 10, 4, 14 + 40 + 64);
    writeFile("in/49.bmp", cut);
    runScript(R"sh(
for how in '' --plain; do
    kal store $how -j 1 a.kal in/{1..49}.bmp >ids
    cmp ids <(for i in {1..49}; do printf '%d\tin/%d.bmp\n' $i $i; done)
    kal store $how -j 3 b.kal in/{1..49}.bmp >ids
    cmp a.kal b.kal
    kal extract a.kal --all -o out -j 2 >ids
    cmp ids <(for i in {1..49}; do printf '%d\tout/%d.bmp\n' $i $i; done)
    diff -r in out
    rm a.kal b.kal out/*
done
for i in {1..11} {14..18} 21 22 40 41; do kal store --dib d.kal in/$i.bmp >ids; done
i=0; for p in {1..11} {14..18} 21 22 40 41; do i=$((i + 1)); kal extract d.kal $i -o - | cmp - in/$p.bmp; done)sh");
}

TEST_F(Archive, IsToldOfInTablesAndJson) {
    writePictures({{40, 30, 8}, {4, 2, 24}, {160, -500, 8}});
    runScript(R"sh(
kal store --plain --dib a.kal in/{1,2,3}.bmp
kal list a.kal | diff - <(cat <<'END'
id  kind     size  bits  rows       bytes  stored   ratio
 1  bmp     40x30     8  bottom-up   2278    2346  103.0%
 2  bmp       4x2    24  bottom-up     78     154  197.4%
 3  bmp   160x500     8  top-down   81078   81162  100.1%
END
)
kal list --json a.kal | diff - <(cat <<'END'
[
  {"id": 1, "kind": "bmp", "width": 40, "height": 30, "bits": 8, "topDown": false, "bytes": 2278, "stored": 2346, "ratio": 1.0299},
  {"id": 2, "kind": "bmp", "width": 4, "height": 2, "bits": 24, "topDown": false, "bytes": 78, "stored": 154, "ratio": 1.9744},
  {"id": 3, "kind": "bmp", "width": 160, "height": 500, "bits": 8, "topDown": true, "bytes": 81078, "stored": 81162, "ratio": 1.0010}
]
END
)
kal remove a.kal 1
kal stat --json a.kal | diff - <(cat <<'END'
[
  {"pictures": 2, "bmp": 2, "png": 0, "compressed": false, "files": 81156, "rows": 80024, "stored": 81316, "archive": 116356, "index": 32664, "entries": 4, "free": 1, "holes": 1, "holeBytes": 2346}
]
END
)
[ $(kal stat a.kal | wc -l) = 14 ]
kal dump a.kal 2 | diff - <(cat <<'END'
op  position  type    name    first row  rows  bytes  start
 1         0  0x0101  form                        24  02 00 00 00 00 18 00 00 04 00 00 00 02 00 00 00
 2        28  0x0102  before                      54  42 4d 4e 00 00 00 00 00 00 00 36 00 00 00 28 00
 3        86  0x0015  band            0     2     44  00 00 00 00 04 00 02 00 18 00 00 00 da 3f cf 00
 4       134  0x0107  end                         12  ba 03 ad b4 4e 00 00 00 00 00 00 00
END
)
kal dump --json a.kal 3 | sed -n '5,6p' | diff - <(cat <<'END'
  {"op": 4, "position": 66566, "type": 21, "name": "band", "firstRow": 409, "rows": 91, "bytes": 14572, "start": "00 00 99 01 a0 00 5b 00 08 00 00 00 f8 24 0b 18"},
  {"op": 5, "position": 81142, "type": 263, "name": "end", "bytes": 12, "start": "46 23 25 37 b6 3c 01 00 00 00 00 00"}
END
)
# The operations are the file: lines of 8 bits as they are, pixels of 24 bits with a byte more.
{ kal cat a.kal 3 2; for op in 3 4; do kal cat a.kal 3 $op | tail -c +13; done; } | cmp - in/3.bmp
kal cat a.kal 3 5 | head -c 8 | cmp - <(gzip -c in/3.bmp | tail -c 8)
kal cat a.kal 2 3 | tail -c +13 | od -An -v -tx1 -w4 >lines
cut -c1-9 lines | cmp - <(tail -c +55 in/2.bmp | od -An -v -tx1 -w3)
[ "$(cut -c10- lines | sort -u)" = ' 00' ]
fails 1 'picture 2 has no operation 5' kal cat a.kal 2 5
fails 1 'there is no picture 1' kal dump a.kal 1)sh");
}

TEST_F(Archive, ChangesAndIsPacked) {
    writePictures({{300, 200, 8}, {301, 100, 24}, {90, 90, 4}, {300, 300, 1}});
    runScript(R"sh(
for how in '' --plain; do
    kal store $how a.kal in/{1,2,3}.bmp >ids
    cp a.kal three
    fails 1 'a.kal: there is no picture 4' kal remove a.kal 2 4
    cmp a.kal three
    kal remove a.kal 3 2
    [ "$(kal store a.kal in/4.bmp in/2.bmp)" = $'2\tin/4.bmp\n3\tin/2.bmp' ]
    # Nothing moves but the index.
    cmp <(tail -c +32665 three) <(tail -c +32665 a.kal | head -c $(($(stat -c %s three) - 32664)))
    chmod 640 a.kal; ln -s a.kal link
    kal pack link
    [ -L link ] && [ "$(stat -c %a a.kal)" = 640 ]
    kal extract a.kal --all -o out >ids
    cmp out/1.bmp in/1.bmp; cmp out/2.bmp in/4.bmp; cmp out/3.bmp in/2.bmp
    kal store $how fresh.kal in/{1,4,2}.bmp >ids
    cmp fresh.kal a.kal
    kal extract a.kal 1 -o link && cmp a.kal in/1.bmp # the file that the link leads to
    rm a.kal link fresh.kal out/*
done
kal store a.kal - <in/2.bmp
kal extract a.kal 1 -o - | cmp - in/2.bmp
kal extract a.kal 1 --png -o - | cmp - <(kal extract a.kal 1 -o p.png && cat p.png)
kal store a.kal p.png; kal extract a.kal 2 --png -o - | cmp - p.png # more than is read at a time
kal sheet a.kal -o - | head -c 4 | grep -q PNG)sh");
}

TEST_F(Archive, HoldsThousandsOfPictures) {
    writePictures({{5, 1, 1}, {4000, 30, 8}}); // the second is too large to be moved
    runScript(R"sh(
kal store -j 2 a.kal in/2.bmp $(yes in/1.bmp | head -3262) >ids
cp a.kal before
[ "$(kal store a.kal in/1.bmp in/2.bmp)" = $'3264\tin/1.bmp\n3265\tin/2.bmp' ]
cmp <(tail -c +32665 before) <(tail -c +32665 a.kal | head -c $(($(stat -c %s before) - 32664)))
fails 1 'it is full: 3265 pictures are the most' kal store a.kal in/1.bmp
kal remove a.kal 7
fails 1 'pack makes room' kal store a.kal in/1.bmp
kal pack a.kal
[ "$(kal store a.kal in/1.bmp)" = $'3266\tin/1.bmp' ]
[ "$(kal list a.kal | wc -l)" = 3266 ]
for id in 2 3264 3266; do kal extract a.kal $id -o - | cmp - in/1.bmp; done
kal extract a.kal 3265 -o - | cmp - in/2.bmp)sh");
}

TEST_F(Archive, IsAsBeforeWhenACommandFails) {
    writePictures({{40, 30, 8}});
    runScript(R"sh(
kal store packed.kal in/1.bmp; kal store --plain plain.kal in/1.bmp; cp in/1.bmp p.bmp; : >empty
printf 'BM, but no more' >wrong.bmp; head -c 40000 /dev/urandom >foreign; rmdir out
refuses <<'END'
1|wrong.bmp: it ends inside its headers|store packed.kal p.bmp p.bmp wrong.bmp
1|wrong.bmp: it ends inside its headers|store -j 1 plain.kal p.bmp wrong.bmp
1|packed.kal: its pictures are compressed|store --plain packed.kal p.bmp
1|none: No such file|store new.kal none
1|not a regular file|store new.kal .
1|File name too long|store new.kal $(printf 'p%.0s' {1..5000})
1|none/a.kal: No such file|store none/a.kal p.bmp
1|none/out: No such file|extract packed.kal 1 -o none/out
1|/dev/null: not a regular file|extract packed.kal 1 -o /dev/null
1|out: several pictures want a folder|extract packed.kal 1 1 -o out
1|new?line: No such file|list $'new\nline'
2||
2||frobnicate
2|PICTURE|store a.kal
2|0|store -j 0 a.kal p.bmp
2|ARCHIVE|list
2|plain.kal|list packed.kal plain.kal
2|--xml|list packed.kal --xml
2|output|extract packed.kal 1
2|ID|extract packed.kal -o out
2|one|extract packed.kal one -o out
2|99999999999|extract packed.kal 99999999999 -o out
2|--all|extract packed.kal --all 1 -o out
2|ID|remove packed.kal
2|OP|cat packed.kal 1
2|ARCHIVE|pack
END
for id in 0 2 65534 65535 65537 4294967295; do
    refuses <<<"1|packed.kal: there is no picture|extract packed.kal $id -o out"
    refuses <<<"1|packed.kal: there is no picture|remove packed.kal $id"
done
for command in list stat pack; do refuses <<<"1|none: No such file|$command none"; done
for name in foreign empty p.bmp; do
    for command in "store $name p.bmp" "list $name" "pack $name" "remove $name 1"; do
        refuses <<<"1|not a picture archive|$command"
    done
done)sh");
}

TEST_F(Archive, HasAnyNameOfTheHost) {
    writePictures({{40, 30, 8}});
    runScript(R"sh(
for name in A.kal a.kal c:a.kal 'x\a.kal' a.kal. '-- x' $'\u00e4\n.kal'; do
    kal store -- "$name" in/1.bmp >ids
    kal extract -o $'p\n.bmp' -- "$name" 1
    cmp $'p\n.bmp' in/1.bmp && rm $'p\n.bmp'
done
[ $(find . -mindepth 1 -maxdepth 1 -printf . | wc -c) = 10 ]
[ "$(kal --version)" = "kal 1.0.0" ]
for command in store list extract remove pack stat dump cat; do kal $command --help | grep -q "  kal $command "; done
kal extract --help | grep -qxF 'Usage: kal extract [--all] -o FILE [--png] [-j N] ARCHIVE [ID...]'
fails 1 'standard output: cannot be written' eval 'kal list a.kal >/dev/full'
cp a.kal before
fails 1 'standard output: cannot be written' eval 'kal list a.kal >&-' || true
cmp a.kal before)sh");
}

// In an album the ids have no order, and 0 is one like the others.
TEST_F(Archive, OfPicturesThatProgramsStoreIsRead) {
    writeAlbum("album.kal");
    runScript(R"sh(
[ "$(kal list album.kal | awk '{print $1, $3, $4, $5}' | xargs)" = \
  "id size bits rows 3 37x2100 1 top-down 2 37x2100 4 top-down 1 37x2100 8 top-down 0 37x2100 24 top-down" ]
mkdir out
kal extract -j 2 --all album.kal -o out >ids
for id in 3 2 1 0; do cmp -i 54 $id.bmp out/$id.bmp; done
kal sheet --size 16 album.kal -o sheet.png
kal check album.kal | grep -q 'operation-list file, whole'
for command in 'store album.kal 0.bmp' 'remove album.kal 1' 'pack album.kal' 'list 0.bmp'; do
    fails 1 'not a picture archive' kal $command
done
rm out/*
head -c -2000 album.kal >cut.kal
fails 1 'picture 0 is damaged' kal extract --all cut.kal -o out
[ "$(ls out | xargs)" = '1.bmp 2.bmp 3.bmp' ])sh");
}

} // namespace
