/* The filter file on a real file system: what stays, what is replaced, and what each fault leaves behind. */
#include "common/bridge_lora_uplink_filter.h"

#include "common/bridge_json_helpers.h"
#include "configs_gw/counted_waits.h"
#include "configs_gw/filter_root.h"

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

static constexpr const char *OPEN_FAILED = "ERROR failed to open the uplink packet filter file";
static constexpr const char *LOCK_FAILED = "ERROR failed to lock the uplink packet filter file";

class LoraUplinkFilter : public FilterTest
{
  protected:
    static std::string read_back()
    {
        json_object *list = nullptr;
        read_filterlist(&list);
        const json_owned owned(list);
        return owned ? json_object_to_json_string_ext(list, JSON_C_TO_STRING_PLAIN) : "none";
    }
};

static const devaddr_filter_rule DEVADDR[] = {{7, "DENY", 0x10, UINT64_MAX}, {7, "allow", 1, 2}};
static const joinreq_filter_rule JOINREQ[] = {{1, "ALLOW", 0, UINT64_MAX, 3, 4}};

/* ---- updates ---- */

TEST_F(LoraUplinkFilter, AnUpdateReplacesItsListAndKeepsTheRest)
{
    static constexpr const char *DEVADDR_TEXT =
        R"("devAddrList":[{"ruleId":7,"action":"DENY","start":16,"end":18446744073709551615},)"
        R"({"ruleId":7,"action":"allow","start":1,"end":2}])";
    static constexpr const char *JOINREQ_TEXT =
        R"("joinReqList":[{"ruleId":1,"action":"ALLOW","devEUI_Start":0,"devEUI_End":18446744073709551615,)"
        R"("joinEUI_Start":3,"joinEUI_End":4}])";
    put("", R"({"version": 3, "devAddrList": [5], "joinReqList": [6], "note": null})");
    EXPECT_EQ(update_devaddr_filterlist(2, DEVADDR), 0);
    EXPECT_EQ(content(""), join({R"({"version":3,)", DEVADDR_TEXT, R"(,"joinReqList":[6],"note":null})"}));
    EXPECT_EQ(update_joinreq_filterlist(1, JOINREQ), 0);
    EXPECT_EQ(content(""), join({R"({"version":3,)", DEVADDR_TEXT, ",", JOINREQ_TEXT, R"(,"note":null})"}));
    EXPECT_EQ(update_devaddr_filterlist(0, nullptr), 0);
    EXPECT_EQ(content(""), join({R"({"version":3,"devAddrList":[],)", JOINREQ_TEXT, R"(,"note":null})"}));
    EXPECT_EQ(update_joinreq_filterlist(0, nullptr), 0);
    EXPECT_EQ(content(""), R"({"version":3,"devAddrList":[],"joinReqList":[],"note":null})");
    EXPECT_THAT(log.complaints(), IsEmpty());
    EXPECT_THAT(locking(),
                ElementsAre("lock", "unlock", "lock", "unlock", "lock", "unlock", "lock", "unlock"));
    EXPECT_EQ(content("-lock"), "");
}

TEST_F(LoraUplinkFilter, AnUpdateTellsItsStepsInOrder)
{
    static constexpr struct {
        int (*update)();
        const char *first;
        const char *last;
    } rows[] = {
        {[] { return update_devaddr_filterlist(0, nullptr); }, "DEBUG Update DevAddr filter list",
         "DEBUG Successfully updated the DevAddr filter list"},
        {[] { return update_joinreq_filterlist(0, nullptr); }, "DEBUG Update JoinReq filter list",
         "DEBUG Successfully updated the JoinEUI filter list"},
    };
    for (const auto &row : rows) {
        const log_view told = log.from_here();
        EXPECT_EQ(row.update(), 0);
        EXPECT_THAT(told.lines(),
                    ElementsAre(row.first, "DEBUG Open uplink packet filter lock file",
                                "DEBUG Get lock for the uplink packet filter configuration",
                                testing::MatchesRegex("DEBUG Uplink packet filter descriptor [0-9]+"),
                                "DEBUG Open uplink packet filter file", row.last,
                                "DEBUG Close uplink packet filter file",
                                testing::MatchesRegex("DEBUG Release lock for the uplink packet filter file "
                                                      "with descriptor [0-9]+"),
                                "DEBUG Close uplink packet filter lock file"));
    }
}

TEST_F(LoraUplinkFilter, AFileWithoutAnObjectCountsAsEmpty)
{
    static constexpr const char *EMPTY = "WARN the filter file appears to be empty (no valid JSON structure)";
    for (const char *text : {"", " \n", "{\"devAddrList\":", "not json"}) {
        SCOPED_TRACE(text);
        put("", text);
        const log_view told = log.from_here();
        EXPECT_EQ(read_back(), "{}");
        EXPECT_EQ(update_joinreq_filterlist(0, nullptr), 0);
        EXPECT_EQ(content(""), R"({"joinReqList":[]})");
        EXPECT_THAT(told.complaints(), ElementsAre(EMPTY, EMPTY));
    }
    for (const char *text : {"[1,2]", "5", "\"x\""}) {
        SCOPED_TRACE(text);
        put("", text);
        EXPECT_EQ(read_back(), "{}");
    }
}

/* ---- what is not there ---- */

struct missing_row {
    const char *name;
    int error;
    const char *told;
    const char *then;
};

static constexpr missing_row MISSING[] = {
    {"-lock", ENOENT, "ERROR uplink packet filter lock file is not present", LOCK_FAILED},
    {"-lock", EACCES, "ERROR not enough permission to access the uplink packet filter lock file",
     LOCK_FAILED},
    {"-lock", EMFILE, "ERROR unable to access the uplink packet filter lock file", LOCK_FAILED},
    {"", ENOENT, "ERROR uplink packet filter file is not present", OPEN_FAILED},
    {"", EACCES, "ERROR not enough permission to access the uplink packet filter file", OPEN_FAILED},
    {"", EISDIR, "ERROR unable to access the uplink packet filter file", OPEN_FAILED},
};

TEST_F(LoraUplinkFilter, AFileThatCannotBeOpenedFailsEveryWrite)
{
    put("", "{\"old\":1}");
    for (const missing_row &row : MISSING) {
        SCOPED_TRACE(row.told);
        refuse(row.name, row.error);
        const bool is_lock = *row.name != '\0';
        log_view told = log.from_here();
        EXPECT_EQ(update_devaddr_filterlist(2, DEVADDR), -1);
        EXPECT_EQ(update_joinreq_filterlist(1, JOINREQ), -1);
        EXPECT_EQ(backup_filterlist(), is_lock ? -1 : -row.error);
        EXPECT_THAT(told.complaints(),
                    ElementsAre(row.told, row.then, row.told, row.then, row.told, row.then));
        EXPECT_EQ(content("-backup"), std::nullopt);
        told = log.from_here();
        EXPECT_EQ(read_back(), is_lock ? R"({"old":1})" : "none");
        put("-backup", "{\"older\":1}");
        rollback_filterlist();
        if (is_lock)
            EXPECT_THAT(told.complaints(), ElementsAre(row.told, row.then));
        else
            EXPECT_THAT(told.complaints(), ElementsAre(row.told, row.then, row.told));
        EXPECT_EQ(told.has("DEBUG failed to open the uplink packet filter file"), !is_lock);
        EXPECT_EQ(remove_backup_filterlist(), 0);
    }
    EXPECT_EQ(content(""), "{\"old\":1}");
    refuse("", 0);
    std::filesystem::remove(place("-lock"));
    EXPECT_EQ(backup_filterlist(), -1);
    std::filesystem::remove(place(""));
    EXPECT_EQ(read_back(), "none");
    EXPECT_EQ(content(""), std::nullopt);
    EXPECT_EQ(content("-lock"), std::nullopt);
}

TEST_F(LoraUplinkFilter, ALockThatCannotBeHadIsTriedSixtyTimes)
{
    static constexpr const char *AGAIN =
        "TRACE lock wasn't obtained for the filter file configuration, waiting 5 more sec...";
    let_fail("lockf", EDEADLK);
    EXPECT_EQ(backup_filterlist(), -1);
    EXPECT_THAT(locking(), SizeIs(60));
    EXPECT_THAT(waits.taken, SizeIs(60));
    EXPECT_THAT(waits.taken, Each("5 s"));
    EXPECT_EQ(log.count(AGAIN), 60);
    EXPECT_EQ(log.complaints(), std::vector<std::string>{LOCK_FAILED});
    EXPECT_EQ(content("-backup"), std::nullopt);
}

TEST_F(LoraUplinkFilter, ALockThatIsHadLateIsTaken)
{
    let_fail("lockf", EINTR);
    let_pass_after_waits(3);
    EXPECT_EQ(update_devaddr_filterlist(0, nullptr), 0);
    EXPECT_THAT(locking(), ElementsAre("no lock", "no lock", "no lock", "lock", "unlock"));
    EXPECT_EQ(content(""), R"({"devAddrList":[]})");
}

/* ---- faults in the middle ---- */

TEST_F(LoraUplinkFilter, AFaultInTheMiddleOfAnUpdateIsToldAndLeavesTheFileToTheBackup)
{
    static constexpr struct {
        const char *call;
        int after;
        int result;
        const char *told;
        const char *left;
    } rows[] = {
        {"ftruncate64", 0, -ENOSPC, "ERROR failed to clear the uplink packet filter file before writing",
         "{\"old\":1}"},
        {"lseek64", 1, -ENOSPC,
         "ERROR failed to set the uplink packet filter file offset to the start before writing", ""},
        {"json_object_to_fd", 0, -1,
         "ERROR failed to write the DevAddr filter list to the uplink packet filter file", ""},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.call);
        put("", "{\"old\":1}");
        EXPECT_EQ(backup_filterlist(), 0);
        const log_view told = log.from_here();
        let_fail(row.call, ENOSPC, row.after);
        EXPECT_EQ(update_devaddr_filterlist(2, DEVADDR), row.result);
        let_all_pass();
        EXPECT_EQ(told.complaints(), std::vector<std::string>{row.told});
        EXPECT_EQ(content(""), row.left);
        rollback_filterlist();
        EXPECT_EQ(content(""), "{\"old\":1}");
    }
    let_fail("json_object_to_fd", ENOSPC);
    EXPECT_EQ(update_joinreq_filterlist(0, nullptr), -1);
    EXPECT_TRUE(log.has("ERROR failed to write the JoinEUI filter list to the uplink packet filter file"));
    const std::vector<std::string> calls = locking();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "lock"),
              std::count(calls.begin(), calls.end(), "unlock"));
}

/* ---- backup and rollback ---- */

TEST_F(LoraUplinkFilter, ABackupComesBackToTheByte)
{
    for (const size_t size : {0, 1, 999, 1000, 1001, 2000, 12345}) {
        SCOPED_TRACE(size);
        std::string text(size, '\0');
        for (size_t i = 0; i < size; i++)
            text[i] = static_cast<char>(i * 7);
        put("", text);
        EXPECT_EQ(backup_filterlist(), 0);
        EXPECT_EQ(content("-backup"), text);
        put("", std::string(20000, 'x'));
        rollback_filterlist();
        EXPECT_EQ(content(""), text);
        EXPECT_EQ(content("-backup"), text) << "it is the caller's to remove";
        EXPECT_EQ(remove_backup_filterlist(), 0);
        EXPECT_EQ(remove_backup_filterlist(), -1);
    }
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(LoraUplinkFilter, ARollbackWithoutABackupDoesNothing)
{
    put("", "{\"new\":1}");
    const log_view told = log.from_here();
    rollback_filterlist();
    EXPECT_THAT(told.lines_of({"DEBUG", "ERROR", "WARN"}),
                ElementsAre("DEBUG Rollback filter rule", "DEBUG No backup uplink packet filter file"));
    EXPECT_EQ(content(""), "{\"new\":1}");
    EXPECT_THAT(locking(), IsEmpty());
}

TEST_F(LoraUplinkFilter, ABackupThatCannotBeMadeIsToldByItsErrorAndLeavesNone)
{
    put("", std::string(5000, 'x'));
    refuse("-backup", EROFS);
    EXPECT_EQ(backup_filterlist(), -EROFS);
    EXPECT_TRUE(log.has("DEBUG failed to open the backup uplink packet filter file"));
    EXPECT_THAT(log.complaints(), IsEmpty());
    refuse("-backup", 0);

    std::filesystem::create_symlink("/dev/full", place("-backup"));
    EXPECT_EQ(backup_filterlist(), -ENOSPC);
    EXPECT_THAT(log.complaints(),
                ElementsAre("ERROR failed to write to the backup uplink packet filter file"));
    EXPECT_FALSE(std::filesystem::is_symlink(place("-backup")));

    const log_view told = log.from_here();
    std::filesystem::remove(place(""));
    std::filesystem::create_symlink("/proc/self/mem", place(""));
    EXPECT_EQ(backup_filterlist(), -EIO);
    EXPECT_THAT(told.complaints(), ElementsAre("ERROR failed to read the uplink packet filter file"));
    EXPECT_EQ(content("-backup"), std::nullopt);
    const std::vector<std::string> calls = locking();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "lock"),
              std::count(calls.begin(), calls.end(), "unlock"));
}

TEST_F(LoraUplinkFilter, ARollbackThatCannotWriteLeavesAnEmptyFile)
{
    put("-backup", "{\"old\":1}");
    let_fail("fwrite");
    rollback_filterlist();
    EXPECT_THAT(log.complaints(), ElementsAre("ERROR failed to write to the uplink packet filter file"));
    EXPECT_EQ(content(""), "");
}

TEST_F(LoraUplinkFilter, ABackupThatCannotBeOpenedIsNotRestored)
{
    put("-backup", "{\"old\":1}");
    refuse("-backup", EACCES);
    rollback_filterlist();
    EXPECT_TRUE(log.has("DEBUG failed to open the backup uplink packet filter file"));
    EXPECT_EQ(content(""), "{}");
    EXPECT_THAT(locking(), IsEmpty());
}

TEST_F(LoraUplinkFilter, AReadErrorOfTheBackupGoesUnnoticedInARollback)
{
    std::filesystem::create_symlink("/proc/self/mem", place("-backup"));
    rollback_filterlist();
    EXPECT_THAT(log.complaints(), IsEmpty());
    EXPECT_EQ(content(""), "");
}

/* ---- order ---- */

TEST_F(LoraUplinkFilter, TheLockIsHeldAroundTheFilterFile)
{
    static constexpr struct {
        void (*operation)();
        std::vector<std::string> (*steps)();
    } rows[] = {
        {[] { backup_filterlist(); },
         [] {
             return std::vector<std::string>{"open -lock", "lock", "open ", "open -backup", "unlock"};
         }},
        {[] { update_devaddr_filterlist(0, nullptr); },
         [] {
             return std::vector<std::string>{"open -lock", "lock", "open ", "unlock"};
         }},
        {rollback_filterlist,
         [] {
             return std::vector<std::string>{"open -backup", "open -lock", "lock", "open ", "unlock"};
         }},
        {[] { read_back(); }, [] { return std::vector<std::string>{"open "}; }},
    };
    size_t done = 0;
    for (const auto &row : rows) {
        const log_view told = log.from_here();
        row.operation();
        std::vector<std::string> steps = FilterTest::steps();
        steps.erase(steps.begin(), steps.begin() + static_cast<ptrdiff_t>(done));
        done += steps.size();
        EXPECT_EQ(steps, row.steps());
        const std::vector<std::string> lines = told.lines();
        const auto released = std::find_if(lines.begin(), lines.end(), [](const std::string &line) {
            return line.starts_with("DEBUG Release lock for the uplink packet filter file");
        });
        EXPECT_LT(told.position("DEBUG Close uplink packet filter file"), released - lines.begin());
    }
}

TEST_F(LoraUplinkFilter, RulesAreSortedByTheirUnsignedNumbers)
{
    static constexpr uint64_t NUMBERS[] = {5, UINT64_MAX, 1, uint64_t{1} << 63, 5, (uint64_t{1} << 32) + 1,
                                           2};
    std::vector<devaddr_filter_rule> addresses;
    std::vector<joinreq_filter_rule> joins;
    for (const uint64_t number : NUMBERS) {
        addresses.push_back({number, "ALLOW", number, 0});
        joins.push_back({number, "ALLOW", number, 0, 0, 0});
    }
    sort_devaddr_list(addresses.data(), addresses.size());
    sort_joinreq_list(joins.data(), joins.size());
    std::vector<uint64_t> sorted(std::begin(NUMBERS), std::end(NUMBERS));
    std::sort(sorted.begin(), sorted.end());
    for (size_t i = 0; i < sorted.size(); i++) {
        EXPECT_EQ(addresses[i].ruleId, sorted[i]);
        EXPECT_EQ(addresses[i].start, sorted[i]) << "the whole rule moves";
        EXPECT_EQ(joins[i].ruleId, sorted[i]);
        EXPECT_EQ(joins[i].devEUI_Start, sorted[i]);
    }
    sort_devaddr_list(nullptr, 0);
    sort_joinreq_list(nullptr, 0);
    EXPECT_EQ(log.count("DEBUG Sort DevAddr filter list"), 4);
}
