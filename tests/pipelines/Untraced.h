// Tests during which nothing is traced but what they collect.
#pragma once

#include <gtest/gtest.h>

#include "platform/lumalog/Lumalog.h"

namespace TrelSnmp::Agent {

class Untraced : public testing::Test {
 protected:
  void SetUp() override { Lumalog::levelIs("*", -1); }
  void TearDown() override { Lumalog::levelsReset(); }
};

}  // namespace TrelSnmp::Agent
