#include "base/IdTable.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace {

using armengine::IdTable;

TEST(IdTable, AgreesWithAMapWhateverIsDone) {
  std::mt19937 random(3);
  std::map<int32_t, int> expected;
  IdTable<int> table;
  for (int i = 0; i < 200000; ++i) {
    const auto id = static_cast<int32_t>(random() % 700 + 1);
    if (random() % 2 == 0) {
      table[id] = i;
      expected[id] = i;
    } else {
      table.erase(id);
      expected.erase(id);
    }
    const auto asked = static_cast<int32_t>(random() % 700 + 1);
    const auto found = expected.find(asked);
    const int* value = table.find(asked);
    ASSERT_EQ(found != expected.end(), value != nullptr);
    if (value != nullptr) {
      ASSERT_EQ(found->second, *value);
    }
  }
  EXPECT_EQ(expected.size(), table.size());
  std::map<int32_t, int> all;
  table.forEach([&all](int32_t id, int value) { all[id] = value; });
  EXPECT_EQ(expected, all);
}

TEST(IdTable, NumbersInARowAreFound) {
  IdTable<int32_t> table;
  for (int32_t id = 1; id <= 100000; ++id) table[id] = -id;
  for (int32_t id = 1; id <= 100000; id += 2) table.erase(id);
  for (int32_t id = 1; id <= 100000; ++id) {
    const int32_t* value = table.find(id);
    ASSERT_EQ(id % 2 == 0, value != nullptr) << id;
    if (value != nullptr) {
      ASSERT_EQ(-id, *value);
    }
  }
}

TEST(IdTable, WhatIsNotPositiveIsNeverFound) {
  IdTable<int> table;
  table[1] = 1;
  for (const int32_t id : {0, -1, INT32_MIN}) {
    EXPECT_EQ(nullptr, table.find(id));
    table.erase(id);
  }
  EXPECT_EQ(1U, table.size());
}

}  // namespace
