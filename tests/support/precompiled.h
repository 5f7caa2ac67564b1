#pragma once

// What nearly every test includes, compiled once for each build tree.  Sources include what they
// use all the same.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>
