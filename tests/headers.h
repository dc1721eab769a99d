// What every test spends most of its compile time on, compiled once (ZEM_PRECOMPILE). A test
// includes what it uses all the same: builds behind a compiler cache, and tests/tidy/lint, do not
// have this.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <thread>
#include <vector>
