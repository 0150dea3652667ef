// kal check on files of every kind, whole and damaged; what it saves; and the bar of long work on a terminal.
#include "tests/support/registry_test.h"
#include "tests/tools/tool_test.h"

#include <kal.h>

namespace {

class CheckTool : public RegistryTest {
protected:
    // A file of each kind, with three things in it.
    CheckTool() {
        for (const int32_t height : {10, 20, 30})
            writeFile(std::to_string(height) + ".bmp", makeBmp({30, height, 8}));
        IOPFILE* lists = nullptr;
        EXPECT_EQ(KalOpenIOpFile(&lists, "lists", KAL_MODE_CREATE | KAL_MODE_UPDATE, KAL_ITEMS_WIDE), 0);
        for (uint16_t id = 1; id <= 3; id++) {
            OpList* list = nullptr;
            EXPECT_EQ(KalOpenPutIOpList(lists, id, &list), 0);
            KalPutOpData(list, 7, "text", 4);
            KalClosePutIOpList(lists);
        }
        KalCloseIOpFile(lists);
        runScript(R"sh(
for n in 1 2 3; do
    head -c 5000 /dev/zero | tr '\0' $n >$n; echo "$n file $n" >>script
    kal compound put compound $n $n; kal settings set App $n $n
done
kal store --plain archive {1,2,3}0.bmp; kal resource make resources script)sh");
    }
};

TEST_F(CheckTool, FindsDamageOfEveryKindAndSavesTheRest) {
    runScript(R"sh(
row=$((($(od -An -tu4 -j 30 -N 4 archive) & 0xFFFFFF) + 1400)) # of the second picture, whose entry is the third
while IFS='|' read -r kind file words place value fault saved; do
    kal check $file | grep -q " $words, whole$"; [ -z "$(kal check --quiet $file)" ]
    cp $file damaged; poke damaged "$place" $value
    fails 1 "damaged: a damaged $words" kal check damaged --as $kind --recover saved-$kind
    [[ $told == *"$fault"*"$saved"* ]]
    kal check saved-$kind --as $kind
    fails 1 exists kal check damaged --as $kind --recover saved-$kind
done <<END
archive|archive|picture archive|$row|$(printf %x $((255 - $(od -An -tu1 -j $row -N 1 archive))))| 2  |saved 2, lost 1
lists|lists|operation-list file|$(grep -obaF text lists | head -1 | cut -d: -f1) + 10|9|  2  an op runs past|saved 2, lost 1
resources|resources|resource file|4 + 8 + 3|FF|  2  it runs past the end of the file|saved 2, lost 1
compound|compound|compound file|512 + 80|1|a sector of another|saved 2, lost 1
registry|registry/log|log of the registry|4096 + 20|21|  0  a record is not what was written|lost 1
END
for n in 1 3; do kal extract saved-archive $n -o - | cmp - ${n}0.bmp; done
kal compound cat saved-compound 3 | cmp - 3
mkdir again; cp saved-registry again/log
KAL_REGISTRY=$PWD/again kal settings list App | cmp - <(printf '%s\n' '1 = 1' '2 = 2' '3 = 3')
printf 'just some text' >text
fails 1 'text: cannot tell what kind of file it is' kal check text
fails 2 --as kal check text --as picture
fails 1 'not a compound file' kal check text --as compound --recover out
[[ $told == *'the file ends inside its header'* && ! -e out ]])sh");
}

TEST_F(CheckTool, EveryMemberOfJsonIsDocumented) {
    runScript("page=" KAL_SOURCE_DIR R"sh(/docs/json.md
cp resources damaged; poke damaged 15 FF
while IFS='|' read -r heading command; do
    { kal $command --json || true; } | grep -oP '"\K[A-Za-z]+(?=": )' | sort -u >members
    [ $(wc -l <members) -gt 1 ]
    sed -n "/^## $heading\$/,/^## /p" $page >section
    while read -r member; do grep -F "\`$member\`" section; done <members
done <<'END'
list|list archive
stat|stat archive
dump|dump archive 1
check|check damaged --recover out
resource list|resource list resources
compound list|compound list compound
settings list|settings list App
END
)sh");
}

TEST_F(CheckTool, LongWorkShowsABarOnATerminalAlone) {
    Bytes headers = makeBmp({3000, 1, 24});
    headers.resize(54);
    for (uint32_t height = 4000; height <= 64000; height *= 2) {
        setNumber(headers, 22, 4, height);
        writeFile(std::to_string(height), headers);
    }
    runScript(R"sh(
for height in 4000 8000 16000 32000 64000; do
    rm -f a.kal; mv $height large.bmp; truncate -s $((54 + height * 9000)) large.bmp
    script -qec 'kal store a.kal large.bmp' /dev/null >shown </dev/null
    grep -qaF $'\r\e[K[#' shown && break
done
grep -qaP '\r\e\[K\[#*-*\] +(100|\d\d?)%  [\d.]+ [KMG]iB  [\d.]+ [KMG]?i?B/s  \d+:\d\d left  large.bmp' shown
[ $(wc -l <shown) = 1 ]; tail -c 17 shown | cmp - <(printf '\r\e[K1\tlarge.bmp\r\n')
[ "$(grep -caP '\e\[[\d;]*m' shown || true)" = 0 ] # colours
[ "$(script -qec 'kal store --quiet b.kal large.bmp' /dev/null </dev/null)" = $'1\tlarge.bmp\r' ]
[ "$(kal store c.kal large.bmp 2>&1)" = $'1\tlarge.bmp' ])sh");
}

} // namespace
