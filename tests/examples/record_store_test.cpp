// The store of examples/store.cpp: many threads, a killed process, and values that the store did not write.

#include "record_store.h"

#include <crrecord/DORecord.h>
#include <crrecord/DORecordView.h>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <set>
#include <thread>

namespace {

using TaskIDs = std::set<unsigned long>;

constexpr unsigned long kThreads = 8;
std::vector<std::string> const kKeys = {"movie", "trailer"};

std::string Task(unsigned long id) {
    return std::string("\2\10\0\0\0\0\0\0", 8) + static_cast<char>(id >> 8) + static_cast<char>(id);
}

// The changes of a thread, by number. No other thread changes its ten tasks.
// Returns: the task, and whether it is added.
std::pair<unsigned long, bool> Step(unsigned long thread, unsigned long number) {
    return {thread * 100 + (number * 7 + number / 9) % 10, (number * 5 + thread) % 8 < 5};
}

TaskIDs TasksAfter(unsigned long thread, unsigned long steps) {
    TaskIDs tasks;
    for (unsigned long number = 0; number < steps; ++number) {
        auto const [task, added] = Step(thread, number);
        added ? (void)tasks.insert(task) : (void)tasks.erase(task);
    }
    return tasks;
}

// Changes both records from all threads, and counts the steps done by each.
void Work(RecordStore& store, std::atomic<unsigned long>* done, unsigned long steps) {
    std::vector<std::jthread> threads;
    for (unsigned long thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([=, &store] {
            while (done[thread] < steps) {
                auto const [task, added] = Step(thread, done[thread]);
                std::string const reference = Task(task);
                store.Change(kKeys, EncodeChanges({0, added ? reference : "", added ? "" : reference, ""}));
                ++done[thread];
            }
        });
    }
}

// The task ids of a thread in the record of a key.
TaskIDs TasksOf(RecordStore const& store, std::string const& key, unsigned long thread) {
    std::string const bytes = store.Get(key);
    TaskIDs tasks;
    for (DOReference const reference : DORecordView(bytes.data(), bytes.size()).References()) {
        if (reference.id / 100 == thread) {
            tasks.insert(reference.id);
        }
    }
    return tasks;
}

std::string Record() {
    unsigned long const fingerprint[2] = {1, 2};
    unsigned long const dcid = CR_FIRST_FREE_DCID;
    DORecord const record(0, 1, 1, 0, 0, 0, fingerprint, 1, &dcid, nullptr, CR_FP_TYPE_MD5, CR_DO_TYPE_NO_SIZE);
    return {reinterpret_cast<char const*>(record.GetHeader()), record.GetHeaderSize()};
}

class RecordStoreTest : public testing::Test {
protected:
    ~RecordStoreTest() override { std::filesystem::remove_all(path_); }

    std::unique_ptr<RecordStore> Create() const {
        auto store = std::make_unique<RecordStore>(path_, true, Durability::Process);
        store->Put(kKeys[0], Record());
        store->Put(kKeys[1], Record());
        return store;
    }

    // Puts a value into the last of these column families, without the store.
    void PutRaw(std::vector<std::string> const& families, std::string const& key, std::string const& value) const {
        rocksdb::Options options;
        options.create_if_missing = true;
        rocksdb::DB* database = nullptr;
        std::vector<rocksdb::ColumnFamilyHandle*> handles;
        std::vector<rocksdb::ColumnFamilyDescriptor> descriptors;
        for (std::string const& family : families) {
            descriptors.emplace_back(family, options);
        }
        ASSERT_TRUE(rocksdb::DB::Open(options, path_, descriptors, &handles, &database).ok());
        EXPECT_TRUE(database->Put({}, handles.back(), key, value).ok());
        for (rocksdb::ColumnFamilyHandle* const handle : handles) {
            database->DestroyColumnFamilyHandle(handle);
        }
        delete database;
    }

    std::string const path_ = testing::TempDir() + "record_store_test." + std::to_string(getpid());
};

} // namespace

// The first test: after a test that uses RocksDB the process has threads of it, which fork does not copy.
TEST_F(RecordStoreTest, KeepsEveryAcknowledgedChangeOfAKilledProcess) {
    void* const shared = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    auto* const done = new (shared) std::atomic<unsigned long>[kThreads]();
    pid_t const child = fork();
    if (child == 0) {
        Work(*Create(), done, ~0UL);
    }
    while (std::any_of(done, done + kThreads, [](auto const& steps) { return steps < 500; })) {
        ASSERT_EQ(waitpid(child, nullptr, WNOHANG), 0);
        usleep(1000);
    }
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);

    RecordStore const store(path_, false);
    for (unsigned long thread = 0; thread < kThreads; ++thread) {
        TaskIDs const tasks = TasksOf(store, kKeys[0], thread);
        EXPECT_EQ(TasksOf(store, kKeys[1], thread), tasks) << "half of a change";
        if (tasks != TasksAfter(thread, done[thread] + 1)) { // a change that was written and not acknowledged
            EXPECT_EQ(tasks, TasksAfter(thread, done[thread])) << thread;
        }
    }
    munmap(shared, 4096);
}

TEST_F(RecordStoreTest, HasWhatEightThreadsAddedAndRemoved) {
    std::unique_ptr<RecordStore> const store = Create();
    std::jthread const compaction([&](std::stop_token const& stop) {
        while (!stop.stop_requested()) {
            store->Compact(); // merges changes with each other, too
        }
    });
    std::atomic<unsigned long> done[kThreads] = {};
    Work(*store, done, 1000);
    for (unsigned long thread = 0; thread < kThreads; ++thread) {
        EXPECT_EQ(TasksOf(*store, kKeys[0], thread), TasksAfter(thread, 1000));
        EXPECT_EQ(TasksOf(*store, kKeys[1], thread), TasksAfter(thread, 1000));
    }
}

TEST_F(RecordStoreTest, KeepsAndReportsWhatItDidNotWrite) {
    std::string const task = Task(1);
    std::string const unordered = Task(2) + Task(1);
    {
        std::unique_ptr<RecordStore> const store = Create();
        store->Change({"movie", "no\n"}, "garbage");
        store->Compact(); // PutRaw has no merge operator
    }
    PutRaw({"default", "references"}, "trailer", EncodeChanges({0, unordered, "", ""}));
    PutRaw({"default", "references"}, "xylophone", "garbage");
    PutRaw({"references", "default"}, "xylophone", Record().substr(0, 100));
    PutRaw({"references", "default"}, "zither", Record());
    RecordStore store(path_, false);
    store.Change({"movie", "xylophone"}, EncodeChanges({0, task, "", ""}));
    store.Compact();
    std::vector<std::string> faults;
    store.Check([&](std::string const& fault) { faults.push_back(fault); });
    EXPECT_EQ(faults, (std::vector<std::string>{
                          "movie: references: 7 undecoded bytes: at byte 0 expected form 1",
                          "no\\x0A: record: found references only, expected a record",
                          "no\\x0A: references: 7 undecoded bytes: at byte 0 expected form 1",
                          "trailer: references: expected each once, in ascending order, and no removed ones",
                          "xylophone: record: Invalid DO record: size 100, expected at least 104",
                          "xylophone: references: 7 undecoded bytes: at byte 0 expected form 1",
                          "zither: references: found a record only, expected its references",
                      }));
    EXPECT_EQ(TasksOf(store, "trailer", 0), (TaskIDs{1, 2}));
    EXPECT_THROW(store.Get("movie"), std::runtime_error);
}

TEST_F(RecordStoreTest, RefusesRecordsStoredWithTheirReferences) {
    PutRaw({"default"}, "movie", Record());
    EXPECT_THROW(RecordStore(path_, true), std::runtime_error);
}
