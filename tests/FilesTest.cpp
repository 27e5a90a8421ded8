#include "KELVOCore/Files.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/TestSupport.h"

namespace kelvo {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

// What a start finds beside it: temporaries of dead, living and earlier
// writers, and names that only look like temporaries. Only a dead writer's
// file, or this pid's from before the start (an earlier life of the same pid),
// may go.
TEST(Files, RemovesOnlyTheTemporariesOfDeadWriters) {
  TempDir dir;
  const auto startedAt = fs::file_time_type::clock::now();
  const std::string dead = "2147483000";  // beyond any pid_max: no such process
  const std::string own = std::to_string(::getpid());
  const std::string living = std::to_string(::getppid());
  struct Case {
    std::string name;
    std::chrono::seconds writtenBeforeStart;  // negative: after it
    bool folder;
    bool removed;
  };
  const std::vector<Case> cases = {
      {"config.json.tmp-" + dead + "-7", std::chrono::seconds(60), false, true},
      {"a.wav.tmp-" + own + "-2", std::chrono::seconds(5), false, true},
      {"b.wav.tmp-" + own + "-3", std::chrono::seconds(-1), false, false},
      {"c.wav.tmp-" + living + "-1", std::chrono::seconds(60), false, false},
      {"plain.wav", std::chrono::seconds(60), false, false},
      {".tmp-" + dead + "-1", std::chrono::seconds(60), false, false},
      {"d.wav.tmp-" + dead + "-x", std::chrono::seconds(60), false, false},
      {"e.wav.tmp-" + dead, std::chrono::seconds(60), false, false},
      {"f.wav.tmp-" + dead + "-4", std::chrono::seconds(60), true, false},
  };
  for (const Case& c : cases) {
    const std::string path = dir.path() + c.name;
    if (c.folder) {
      fs::create_directory(path);
    } else {
      std::ofstream(path) << "partial";
    }
    fs::last_write_time(path, startedAt - c.writtenBeforeStart);
  }

  std::vector<std::string> removed = removeOrphanedTempFiles(dir.path(), startedAt);
  std::sort(removed.begin(), removed.end());
  std::vector<std::string> expected;
  for (const Case& c : cases) {
    if (c.removed) expected.push_back(c.name);
    EXPECT_EQ(fs::exists(dir.path() + c.name), !c.removed) << c.name;
  }
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(removed, expected);
}

}  // namespace
}  // namespace kelvo
