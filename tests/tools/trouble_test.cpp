// What goes wrong from outside: no memory, no room, signals, other programs, damage.
#include "tests/support/processes.h"
#include "tests/support/registry_test.h"
#include "tests/tools/tool_test.h"

#include <cstddef>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

namespace {

class ShortMemory : public RegistryTest {};
class Trouble : public FolderTest {};

// Each command with room for more and more allocations, each of which takes a page of its own, until it is done.
TEST_F(ShortMemory, IsToldOrDoesNoHarm) {
    if (slowBuild)
        GTEST_SKIP() << "the sanitizer has an allocator of its own";
    writeFile("p.bmp", makeBmp({40, 30, 8}, 1));
    writeAlbum("album.kal");
    runScript(R"sh(
mkdir here; mv p.bmp album.kal here; cd here; printf '1 text "Open"\n2 file p.bmp\n' >script
kal store a.kal p.bmp p.bmp p.bmp; kal remove a.kal 2; kal extract a.kal 1 -o p.png; kal resource make r.res script
kal compound put c.ole s script; kal compound put c.ole t p.bmp
for tag in Tag Other Third; do kal settings set 'Maker\App' $tag value; done
cp -r . ../before
ulimit -s 256 # of threads
least=3000
back() { rm -rf *; cp -r ../before/. .; }
while read -r -a command; do
    kal "${command[@]}" >../all; cp -r . ../done; back
    step=20; [ -z "${KAL_TEST_LARGE-}" ] || step=4
    for ((room = least; ; room += step)); do
        status=0
        (ulimit -d $room; GLIBC_TUNABLES=glibc.malloc.mmap_threshold=0 exec kal "${command[@]}") >../out 2>../err || status=$?
        [ $status != 127 ] || continue # the program could not be loaded
        [ $status != 0 ] || break
        mapfile -t lines <../err
        [ $status = 1 ] && [ ${#lines[@]} = 1 ] && [[ ${lines[0]} == 'kal: '* ]]
        [ $least != 3000 ] || [[ ${lines[0]} == 'kal: not enough memory' ]]
        diff -r . ../before
    done
    cmp ../out ../all; diff -r . ../done; back; rm -r ../done
    [ $least != 3000 ] || least=$room # for what is before the command
done <<'END'
--version
list a.kal
stat a.kal
dump a.kal 1
cat a.kal 1 2
extract a.kal 1 -o out
extract a.kal 1 -o out.png
extract album.kal 1 -o out
sheet a.kal --size 16 -o out
remove a.kal 1
pack a.kal
store a.kal p.bmp
store new.kal p.png
store -j 2 new.kal p.bmp p.png
compound list c.ole
compound put c.ole s p.bmp
compound put new.ole s p.bmp
resource make new.res script
resource list r.res
settings list Maker\App
settings get Maker\App Tag
END
)sh");
}

// 8 programs into one archive, which does not exist yet or is packed meanwhile.
TEST_F(Trouble, OfOthersAtTheSameTimeLosesNothing) {
    for (uint32_t i = 0; i < 8; i++)
        writeFile(std::to_string(i), makeBmp({600 + i, 300, 8}, i));
    runScript((slowBuild ? "races=2" : "races=10") + std::string(R"sh(
all() { for job in $(jobs -p); do wait $job; done; }
for ((race = 0; race < races; race++)); do
    for i in {0..7}; do
        kal store a.kal $i --wait 100 & kal compound put c.ole s$i $i --wait 100 &
    done
    all
    for i in 1 2 3; do
        kal remove a.kal $i --wait 100 & kal pack a.kal --wait 100 & kal store a.kal 1 --wait 100 &
    done
    all
    kal extract a.kal --all -o . >ids
    [ "$(cut -f1 ids | xargs)" = "4 5 6 7 8 9 10 11" ]
    for i in {0..7}; do kal compound cat c.ole s$i | cmp - $i; done
    for i in 1 1 1; do cat $i; done | cmp - <(cat 9.bmp 10.bmp 11.bmp)
    rm a.kal c.ole ids *.bmp
    [ "$(ls -A)" = "$(printf '%d\n' {0..7})" ]
done)sh"));
}

TEST_F(Trouble, OfALockIsWaitedFor) {
    writeFile("p.bmp", makeBmp({40, 30, 8}));
    runScript(R"sh(
kal store a.kal p.bmp
exec {lock}<a.kal; flock $lock
fails 1 'a.kal: in use' kal list a.kal --wait 0
kal store a.kal p.bmp >out 2>err {lock}<&- &
sleep 1.5
rm a.kal; kal store a.kal p.bmp p.bmp # what it waits for is not what it finds
exec {lock}<&-
wait $!
cmp out <(printf '3\tp.bmp\n'); cmp err <(echo 'kal: a.kal: in use; waiting for it'))sh");
}

TEST_F(Trouble, OfSignalsLeavesWhatWasThere) {
    writeFile("p.bmp", makeBmp({1500, 1000, 24}, 2));
    runScript((slowBuild ? "pause=40" : "pause=8") + std::string(R"sh(
set -m # so that SIGINT reaches what runs in the background
mkdir here; mv p.bmp here; cd here
kal store kept.kal p.bmp p.bmp; kal compound put kept.ole s p.bmp; cp kept.* ..
signals=(15 2 9) step=0
while read -r command; do
    for delay in $(seq -w 001 $pause 090); do
        signal=${signals[step++ % 3]} status=0
        kal $command >/dev/null 2>../err &
        sleep 0.$delay; kill -$signal $! || true
        wait $! || status=$?
        if [ $status != 0 ]; then
            [ $status = $((128 + signal)) ] && [ ! -s ../err ]
            [ "$(ls -A | xargs)" = 'kept.kal kept.ole p.bmp' ]
            # Killed when all was done but the end of the process, it may have done it.
            kal extract kept.kal 1 -o - | cmp - p.bmp
            kal compound cat kept.ole s | cmp - p.bmp || kal compound cat kept.ole s | cmp - kept.kal
            [ $signal = 9 ] || { cmp kept.kal ../kept.kal && cmp kept.ole ../kept.ole; }
        fi
        rm -f new; cp ../kept.* .
    done
done <<'END'
store kept.kal p.bmp
store -j 2 new p.bmp p.bmp
extract kept.kal 1 -o new
pack kept.kal
remove kept.kal 2
compound put new s p.bmp
compound put kept.ole s kept.kal
END
)sh"));
}

// Here and in what is started from here no file can be made without a name. False where the host has no such filters.
bool forbidUnnamedFiles() {
    sock_filter filter[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_openat, 0, 3),
                            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),
                            BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, O_TMPFILE & ~O_DIRECTORY, 0, 1),
                            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EOPNOTSUPP),
                            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    sock_fprog program = {std::size(filter), filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// Where files cannot be without a name they have one that tells whose they are; dead programs' are removed.
TEST_F(Trouble, OfAFileSystemThatWantsNamesIsOvercome) {
    writeFile("p.bmp", makeBmp({40, 30, 8}));
    const int status = inChild([] {
        if (!forbidUnnamedFiles())
            std::exit(77);
        runScript(R"sh(
touch .a.kal.kal-1-0 .out.kal-99-3 .other.kal-1-0
exec {lives}>.out.kal-1-0; flock $lives # its program
kal store -j 2 a.kal p.bmp p.bmp
for twice in 1 2; do kal extract a.kal 2 -o out; done
kal pack a.kal
fails 1 'none: No such file' kal store b.kal out none
[ "$(LC_ALL=C ls -A | xargs)" = '.other.kal-1-0 .out.kal-1-0 a.kal out p.bmp' ]
cmp out p.bmp)sh");
    });
    if (WEXITSTATUS(status) == 77)
        GTEST_SKIP() << "no right to filter";
    EXPECT_EQ(status, 0);
}

TEST_F(Trouble, OfAFullDiskLeavesWhatWasThere) {
    writeFile("small.bmp", makeBmp({40, 30, 8}));
    writeFile("big.bmp", makeBmp({9000, 30, 8}));
    if (std::system("mkdir tiny && mount -t tmpfs -o size=160000 none tiny 2>err") != 0)
        GTEST_SKIP() << "no right to mount";
    runScript((slowBuild ? "step=16384" : "step=4096") + std::string(R"sh(
trap 'umount -l tiny' EXIT
kal store big.kal big.bmp; kal store tiny/a.kal small.bmp; cp tiny/a.kal before
fails 1 'tiny/new.kal: no room left on the disk' kal store tiny/new.kal big.bmp
fails 1 'tiny/out.bmp: No space left' kal extract big.kal 1 -o tiny/out.bmp
fails 1 'tiny/new.ole: s: no room' kal compound put tiny/new.ole s big.bmp
[ "$(ls -A tiny)" = a.kal ]
# The room ends anywhere: in a list, in the index, in the copy.
twelve=$(printf 'small.bmp %.0s' {1..12})
for ((taken = 0; taken < 120000; taken += step)); do
    for command in "store tiny/a.kal $twelve" 'pack tiny/a.kal'; do
        head -c $taken /dev/zero >tiny/filler
        ends 'a.kal: ' kal $command; [ $status = 0 ] || cmp tiny/a.kal before
        rm tiny/filler; cp before tiny/a.kal
    done
done
mount -o remount,ro none tiny
kal extract tiny/a.kal 1 -o - | cmp - small.bmp
for command in 'store tiny/a.kal small.bmp' 'remove tiny/a.kal 1' 'pack tiny/a.kal' 'extract tiny/a.kal 1 -o tiny/out.bmp'; do
    fails 1 'Read-only file system' kal $command
done)sh"));
}

// A picture of a damaged archive comes back whole or not at all.
TEST_F(Trouble, OfWrongBytesIsFound) {
    writeFile("p1", makeBmp({30, 20, 1}));
    writeFile("p2", makeBmp({25, -20, 4, 40, 3, 5, true}, 2));
    writeFile("p3", makeBmp({80, 60, 8}, 3));
    writeFile("p4", makeBmp({40, 30, 24}, 4));
    runScript((slowBuild ? "rounds=8" : "rounds=40") + std::string(R"sh(
RANDOM=1
mkdir out
for how in '' --plain --dib; do
    rm -f whole; kal store whole p1 p2 p3 p4 $how
    size=$(stat -c %s whole) lost=0
    for ((round = 0; round < rounds; round++)); do
        cp whole a.kal
        for ((flips = round % 3; flips >= 0; flips--)); do # in the index, or behind its room
            at=$((round % 4 == 0 ? RANDOM % 54 : 32664 + RANDOM % (size - 32664)))
            poke a.kal $at $(printf %x $(($(od -An -tu1 -j $at -N 1 a.kal) ^ 1 << RANDOM % 8)))
        done
        [ $((round % 5)) != 4 ] || truncate -s $((RANDOM % (RANDOM % 2 ? 200 : size))) a.kal
        for command in 'list a.kal' 'stat a.kal' 'sheet a.kal -o out.png' 'dump a.kal 2' 'extract a.kal 1 2 3 4 -o out'; do
            ends 'a.kal: ' kal $command 2>/dev/null; [ $status -lt 2 ]
        done
        pictures=$(ls out)
        for picture in $pictures; do cmp out/$picture p${picture%.bmp}; done
        missing=$((4 - $(wc -w <<<$pictures)))
        [ $status = $((missing > 0)) ]
        rm -f out/*; lost=$((lost + missing))
    done
    [ $lost -gt $((rounds / 2)) ] # else the damage hardly showed
done)sh"));
}

} // namespace
