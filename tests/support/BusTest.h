#ifndef TESTS_BUS_TEST_H
#define TESTS_BUS_TEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "ChildProgram.h"
#include "Client.h"
#include "LogCapture.h"
#include "PrivateBus.h"
#include "Sanitizers.h"
#include "Service.h"

namespace esg::test {

/// The fixture of a test that needs a bus from its start. A test without it may start one later,
/// with TestBus().
class OnBus : public testing::Test {
 protected:
  OnBus() { TestBus().Start(); }
};

}  // namespace esg::test

#endif
