// Processes sharing one hive: a writer killed at any moment leaves the tree as
// it was before or after its last change, never torn; changes made at once by
// several processes are all kept.
#include <signal.h>

#include <cstdio>
#include <random>

#include "hive_fixture.h"

namespace {

std::u16string Name(const char *format, int a, int b = 0) {
    char text[32];
    std::snprintf(text, sizeof text, format, a, b);
    return kvthost::Widen(text);
}

// The writer's step n sets "Seq" to n known bytes, then creates key "K<n>": a
// tree on disk is Seq = n with the keys K1..K(n-1) or K1..Kn.
std::vector<BYTE> SeqBytes(int n) {
    std::vector<BYTE> bytes;
    for (int k = 0; k < n; ++k) bytes.push_back(static_cast<BYTE>(k * 31 + 7));
    return bytes;
}

// Goes on from the tree on disk (its last step again, then on), writing a byte
// to `done` after each step.
int Writer(int done) {
    HKEY key = nullptr, sub = nullptr;
    DWORD size = 0;
    if (RegCreateKeyW(HKEY_LOCAL_MACHINE, u"Crash", &key) != ERROR_SUCCESS) return 1;
    if (RegQueryValueExW(key, u"Seq", nullptr, nullptr, nullptr, &size) != ERROR_SUCCESS) size = 1;
    for (int step = static_cast<int>(size);; ++step) {
        std::vector<BYTE> bytes = SeqBytes(step);
        if (RegSetValueExW(key, u"Seq", 0, REG_BINARY, bytes.data(), static_cast<DWORD>(step)) != ERROR_SUCCESS ||
            RegCreateKeyW(key, Name("K%04d", step).c_str(), &sub) != ERROR_SUCCESS || RegCloseKey(sub) != 0 ||
            write(done, "+", 1) != 1)
            return 2;
    }
}

TEST_F(HiveTest, WriterKilledAtAnyMomentLeavesAWholeTree) {
    std::mt19937 random(9);
    int finished = 0;  // the last step a writer reported done
    for (int round = 0; round < 12; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        int pipeFds[2];
        ASSERT_EQ(pipe(pipeFds), 0);
        pid_t writer = Spawn([&] {
            close(pipeFds[0]);
            return Writer(pipeFds[1]);
        });
        close(pipeFds[1]);
        // Some steps done, then a kill somewhere in a change (the pause only varies where).
        int steps = 1 + static_cast<int>(random() % 20);
        int done = 0;
        char c;
        while (done < steps && read(pipeFds[0], &c, 1) == 1) ++done;
        usleep(static_cast<useconds_t>(random() % 4000));
        kill(writer, SIGKILL);
        EXPECT_EQ(Wait(writer), 128 + SIGKILL);
        close(pipeFds[0]);
        ASSERT_EQ(done, steps) << "the writer ended early";
        finished = std::max(finished, 1) + steps - 1;

        ReadAfresh();
        HKEY crash = Open(HKEY_LOCAL_MACHINE, u"Crash");
        RegValue seq = Query(crash, u"Seq");
        ASSERT_EQ(seq.status, ERROR_SUCCESS);
        int n = static_cast<int>(seq.data.size());
        EXPECT_EQ(seq.data, SeqBytes(n));
        EXPECT_GE(n, finished) << "a finished change was lost";
        std::vector<std::u16string> keys = SubKeys(crash), all;
        for (int k = 1; k <= n; ++k) all.push_back(Name("K%04d", k));
        if (n > finished && keys.size() + 1 == all.size()) all.pop_back();  // killed between the two changes
        EXPECT_EQ(keys, all) << "Seq has " << n << " bytes";
        RegCloseKey(crash);
        finished = n;
    }
    // A left-over temporary file is never taken for the hive.
    std::ofstream(kvthost::HivePath() + ".tmp.1") << "Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\T]\r\n";
    ReadAfresh();
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyW(HKEY_LOCAL_MACHINE, u"T", &key), ERROR_FILE_NOT_FOUND);
}

// Each process sets values, creates keys and deletes some of them again, all
// in one parent: the tree afterwards holds every change of every process.
TEST_F(HiveTest, ChangesMadeAtOnceByManyProcessesAreAllKept) {
    constexpr int kProcesses = 4, kChanges = 50;
    RegCloseKey(Open(HKEY_LOCAL_MACHINE, u"Shared", true));
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        children.push_back(Spawn([&, p] {
            close(gate[1]);
            char c;
            HKEY shared = nullptr, key = nullptr;
            if (read(gate[0], &c, 1) != 0 || RegOpenKeyW(HKEY_LOCAL_MACHINE, u"Shared", &shared) != 0) return 1;
            for (int i = 0; i < kChanges; ++i) {
                std::u16string name = Name("p%d-%02d", p, i);
                DWORD value = static_cast<DWORD>(p * 1000 + i);
                if (i % 2 == 0 && RegSetValueExW(shared, name.c_str(), 0, REG_DWORD,
                                                 reinterpret_cast<const BYTE *>(&value), 4) != ERROR_SUCCESS)
                    return 2;
                if (i % 2 == 1 && (RegCreateKeyW(shared, name.c_str(), &key) != 0 || RegCloseKey(key) != 0))
                    return 3;
                if (i % 4 == 3 && RegDeleteKeyW(shared, name.c_str()) != ERROR_SUCCESS) return 4;
            }
            return 0;
        }));
    }
    close(gate[0]);
    close(gate[1]);  // the children start together, at the end of file
    for (pid_t child : children) EXPECT_EQ(Wait(child), 0);

    HKEY shared = Open(HKEY_LOCAL_MACHINE, u"Shared");
    std::vector<std::u16string> kept;
    for (int p = 0; p < kProcesses; ++p) {
        for (int i = 0; i < kChanges; ++i) {
            DWORD value = static_cast<DWORD>(p * 1000 + i);
            const BYTE *bytes = reinterpret_cast<const BYTE *>(&value);
            if (i % 2 == 0) {
                EXPECT_EQ(Query(shared, Name("p%d-%02d", p, i)), (RegValue{ERROR_SUCCESS, REG_DWORD, {bytes, bytes + 4}}));
            }
            if (i % 4 == 1) kept.push_back(Name("p%d-%02d", p, i));
        }
    }
    EXPECT_EQ(SubKeys(shared), kept);
    RegCloseKey(shared);
}

}  // namespace
