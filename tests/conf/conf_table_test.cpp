#include "conf_table.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include "conf/oxaconf.h"
#include "log_recorder.h"
#include "support/allocations.h"
#include "support/child.h"

using testsupport::FailingAllocation;
using testsupport::in_child;
using testsupport::live_blocks;

namespace {

std::string numbered(const char* prefix, size_t number) {
  return prefix + std::to_string(number);
}

/// Sets NAME0, NAME1, ... until the table has `count` entries.
void fill(const ConfTable& conf, size_t count) {
  for (size_t i = conf->count; i < count; ++i)
    ASSERT_EQ(conf_set_r(numbered("NAME", i).c_str(), numbered("value", i).c_str(), conf.get()), 0);
}

void expect_cleared_slots(const ConfTable& conf) {
  for (size_t slot = conf->count; slot < conf->capacity; ++slot) {
    EXPECT_EQ(conf->entries[slot].name, nullptr) << "slot " << slot;
    EXPECT_EQ(conf->entries[slot].value, nullptr) << "slot " << slot;
  }
}

/// The texts of ENOMEM at the priority of a user-facility warning.
LogLine out_of_memory(const char* what) {
  return {12, std::string(what) + ": " + strerror(ENOMEM)};
}

}  // namespace

TEST(ConfInitR, GivesAFreshTableTwentyClearedSlots) {
  const ConfTable conf = new_table();
  conf->count = 7;
  EXPECT_EQ(conf_init_r(conf.get()), 0);
  EXPECT_NE(conf->entries, nullptr);
  EXPECT_EQ(conf->capacity, 20U);
  EXPECT_EQ(conf->count, 0U);
  EXPECT_EQ(conf->sorted, 1);
  expect_cleared_slots(conf);
}

TEST(ConfInitR, LeavesATableWithRoomAsItIs) {
  const ConfTable conf = new_table();
  fill(conf, 19);
  const ConfEntry* entries = conf->entries;
  EXPECT_EQ(conf_init_r(conf.get()), 0);
  EXPECT_EQ(conf->entries, entries);
  EXPECT_EQ(conf->capacity, 20U);
  EXPECT_EQ(conf->count, 19U);
}

TEST(ConfInitR, DoublesAFullTableAndClearsTheNewSlots) {
  const ConfTable conf = new_table();
  for (const size_t capacity : {20U, 40U, 80U}) {
    fill(conf, capacity);
    ASSERT_EQ(conf->capacity, capacity);
    EXPECT_EQ(conf_init_r(conf.get()), 0);
    EXPECT_EQ(conf->capacity, 2 * capacity);
    EXPECT_EQ(conf->count, capacity);
    expect_cleared_slots(conf);
  }
  for (size_t i = 0; i < 80; ++i)
    EXPECT_STREQ(conf_get_r(numbered("NAME", i).c_str(), conf.get()), numbered("value", i).c_str());
}

TEST(ConfInitR, GrowsToTwentyAboveTheCountWhereDoublingIsNotEnough) {
  const ConfTable conf = new_table();
  conf->entries = static_cast<ConfEntry*>(malloc(sizeof(ConfEntry)));
  EXPECT_EQ(conf_init_r(conf.get()), 0);
  EXPECT_EQ(conf->capacity, 20U);
  EXPECT_EQ(conf->count, 0U);
  expect_cleared_slots(conf);
}

TEST(ConfInitR, FailsSilentlyWhenThereIsNoMemoryForTheFirstSlots) {
  const LogRecorder log;
  const ConfTable conf = new_table();
  conf->capacity = 3;
  {
    const FailingAllocation failure(1);
    errno = 0;
    EXPECT_EQ(conf_init_r(conf.get()), -1);
    EXPECT_EQ(errno, ENOMEM);
  }
  EXPECT_EQ(conf->entries, nullptr);
  EXPECT_EQ(conf->capacity, 0U);
  EXPECT_EQ(log.lines(), std::vector<LogLine>{});
}

TEST(ConfInitR, KeepsAFullTableThatCannotGrow) {
  const LogRecorder log;
  const ConfTable conf = new_table();
  fill(conf, 20);
  {
    const FailingAllocation failure(1);
    errno = 0;
    EXPECT_EQ(conf_init_r(conf.get()), -1);
    EXPECT_EQ(errno, ENOMEM);
  }
  EXPECT_EQ(conf->capacity, 20U);
  EXPECT_STREQ(conf_get_r("NAME19", conf.get()), "value19");
  EXPECT_EQ(log.lines(), std::vector<LogLine>{out_of_memory("Unable to read configuration")});
}

TEST(ConfInitR, RefusesACapacityThatOverflows) {
  struct Row {
    const char* what;
    size_t capacity;
    size_t count;
  };
  const std::vector<Row> rows = {
      {"twice the capacity", SIZE_MAX / 2 + 1, SIZE_MAX / 2 + 1},
      {"twenty above the count", 1, SIZE_MAX - 10},
      {"the bytes of the slots", SIZE_MAX / 8, SIZE_MAX / 8},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const LogRecorder log;
    ConfEntry entry = {};
    ConfR conf = {&entry, row.capacity, row.count, 1};
    errno = 0;
    EXPECT_EQ(conf_init_r(&conf), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(conf.entries, &entry);
    EXPECT_EQ(conf.capacity, row.capacity);
    EXPECT_EQ(log.lines(), std::vector<LogLine>{out_of_memory("Unable to read configuration")});
  }
}

TEST(ConfSetR, StoresCopiesOfBothStrings) {
  const ConfTable conf = new_table();
  char name[] = "NAME";
  char value[] = "value";
  ASSERT_EQ(conf_set_r(name, value, conf.get()), 0);
  name[0] = value[0] = '-';
  EXPECT_STREQ(conf->entries[0].name, "NAME");
  EXPECT_STREQ(conf_get_r("NAME", conf.get()), "value");
}

TEST(ConfSetR, AppendsANewNameAndLeavesTheTableUnsorted) {
  const ConfTable conf = new_table();
  ASSERT_EQ(conf_init_r(conf.get()), 0);
  ASSERT_EQ(conf_set_r("B", "1", conf.get()), 0);
  EXPECT_EQ(conf->sorted, 0);
  conf_finalize_r(conf.get());
  ASSERT_EQ(conf_set_r("A", "2", conf.get()), 0);
  EXPECT_EQ(conf->sorted, 0);
  EXPECT_EQ(conf->count, 2U);
  EXPECT_STREQ(conf->entries[1].name, "A");
}

TEST(ConfSetR, ReplacesTheValueOfAKnownNameInItsPlace) {
  const ConfTable conf = new_table();
  fill(conf, 3);
  conf_finalize_r(conf.get());
  const char* name = conf->entries[1].name;
  ASSERT_EQ(conf_set_r("NAME1", "another", conf.get()), 0);
  EXPECT_EQ(conf->count, 3U);
  EXPECT_EQ(conf->entries[1].name, name);
  EXPECT_STREQ(conf->entries[1].value, "another");
  EXPECT_EQ(conf->sorted, 1) << "the order of the names did not change";
}

TEST(ConfSetR, FreesTheValueItReplacesAndTheSpareName) {
  const ConfTable conf = new_table();
  fill(conf, 1);
  const long before = live_blocks();
  ASSERT_EQ(conf_set_r("NAME0", "another", conf.get()), 0);
  EXPECT_EQ(live_blocks(), before);
}

TEST(ConfSetR, MakesRoomEvenForAKnownName) {
  const ConfTable conf = new_table();
  fill(conf, 20);
  ASSERT_EQ(conf->capacity, 20U);
  ASSERT_EQ(conf_set_r("NAME0", "another", conf.get()), 0);
  EXPECT_EQ(conf->capacity, 40U);
  EXPECT_EQ(conf->count, 20U);
}

TEST(ConfSetR, StoresNothingWhenACopyFails) {
  for (const unsigned long failing : {1UL, 2UL}) {
    SCOPED_TRACE(failing);
    const LogRecorder log;
    const ConfTable conf = new_table();
    fill(conf, 1);
    {
      const FailingAllocation failure(failing);
      errno = 0;
      EXPECT_EQ(conf_set_r("ANOTHER", "value", conf.get()), -1);
      EXPECT_EQ(errno, ENOMEM);
      EXPECT_TRUE(FailingAllocation::happened());
    }
    EXPECT_EQ(conf->count, 1U);
    EXPECT_EQ(log.lines(), std::vector<LogLine>{out_of_memory("Unable to form configuration")});
  }
}

TEST(ConfSetR, LeaksNothingWhenACopyFails) {
  const ConfTable conf = new_table();
  fill(conf, 1);
  const long before = live_blocks();
  for (const unsigned long failing : {1UL, 2UL}) {
    const FailingAllocation failure(failing);
    ASSERT_EQ(conf_set_r("ANOTHER", "value", conf.get()), -1);
  }
  EXPECT_EQ(live_blocks(), before);
}

TEST(ConfSetR, FailsWhenNoRoomCanBeMade) {
  const LogRecorder log;
  const ConfTable conf = new_table();
  fill(conf, 20);
  {
    const FailingAllocation failure(1);
    errno = 0;
    EXPECT_EQ(conf_set_r("NAME20", "value", conf.get()), -1);
    EXPECT_EQ(errno, ENOMEM);
  }
  EXPECT_EQ(conf->count, 20U);
  EXPECT_EQ(log.lines(), std::vector<LogLine>{out_of_memory("Unable to read configuration")});
}

TEST(ConfFinalizeR, SortsByTheBytesOfTheNames) {
  const ConfTable conf = new_table();
  for (const char* name : {"b", "B", "_", "9", "AB", "A", "Z", "a"})
    ASSERT_EQ(conf_set_r(name, name, conf.get()), 0);
  conf_finalize_r(conf.get());
  EXPECT_EQ(conf->sorted, 1);
  std::string order;
  for (size_t i = 0; i < conf->count; ++i) order += std::string(conf->entries[i].name) + " ";
  EXPECT_EQ(order, "9 A AB B Z _ a b ");
}

TEST(ConfFinalizeR, LeavesASortedTableAlone) {
  const ConfTable conf = new_table();
  ASSERT_EQ(conf_set_r("B", "1", conf.get()), 0);
  ASSERT_EQ(conf_set_r("A", "2", conf.get()), 0);
  conf->sorted = 1;
  conf_finalize_r(conf.get());
  EXPECT_STREQ(conf->entries[0].name, "B");
}

TEST(ConfFinalizeR, TakesAnEmptyTable) {
  const ConfTable conf = new_table();
  conf_finalize_r(conf.get());
  EXPECT_EQ(conf->sorted, 1);
  EXPECT_EQ(conf_get_r("A", conf.get()), nullptr);
}

TEST(ConfGetR, FindsEveryNameInAnyOrder) {
  for (const bool sorted : {false, true}) {
    for (size_t count = 0; count <= 41; ++count) {
      SCOPED_TRACE((sorted ? "sorted, " : "unsorted, ") + std::to_string(count));
      const ConfTable conf = new_table();
      fill(conf, count);
      if (sorted) conf_finalize_r(conf.get());
      for (size_t i = 0; i < count; ++i)
        EXPECT_STREQ(conf_get_r(numbered("NAME", i).c_str(), conf.get()),
                     numbered("value", i).c_str());
      for (const char* absent : {"", "NAME", "NAME1x", "name1", "ZZ", "NAME99"})
        EXPECT_EQ(conf_get_r(absent, conf.get()), nullptr) << absent;
    }
  }
}

TEST(ConfGetR, BelievesTheSortedMark) {
  const ConfTable conf = new_table();
  for (const char* name : {"C", "B", "A"}) ASSERT_EQ(conf_set_r(name, name, conf.get()), 0);
  EXPECT_STREQ(conf_get_r("A", conf.get()), "A");
  conf->sorted = 1;
  EXPECT_EQ(conf_get_r("A", conf.get()), nullptr) << "halving cannot find it in this order";
}

TEST(ConfFreeR, TakesNull) {
  EXPECT_EQ(in_child([] { conf_free_r(nullptr); }).exit_code(), 0);
}

TEST(ConfFreeR, FreesEverySlotUpToTheCapacity) {
  const long before = live_blocks();
  ConfTable conf = new_table();
  fill(conf, 43);
  conf->count = 1;
  conf.reset();
  EXPECT_EQ(live_blocks(), before);
}

TEST(CmpConf, ComparesTheNamesAlone) {
  char a[] = "A";
  char b[] = "B";
  const ConfEntry first = {a, b};
  const ConfEntry second = {b, a};
  EXPECT_LT(cmp_conf(&first, &second), 0);
  EXPECT_GT(cmp_conf(&second, &first), 0);
  const ConfEntry same = {a, nullptr};
  EXPECT_EQ(cmp_conf(&first, &same), 0);
}
