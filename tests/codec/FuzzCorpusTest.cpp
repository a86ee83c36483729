#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "fuzz/FuzzTargets.h"

namespace Fuzz {
namespace {

namespace fs = std::filesystem;

// The source tree is found from this file's path, so the test runs from any build
// directory.
fs::path corpusRoot() {
   return fs::path(DHCP_RELAY_SOURCE_DIR) / "fuzz" / "corpus";
}

std::vector<uint8_t> readFile(const fs::path& path) {
   std::ifstream in(path, std::ios::binary);
   return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

// Every committed input, the seeds and any crash found since, runs through the body of
// its fuzz program on every test run, with or without clang; no corpus is left without
// its program.
TEST(FuzzCorpusTest, EveryInputKeepsItsTargetsProperties) {
   std::set<std::string> names;
   for (const Target& target : kTargets) {
      names.emplace(target.name);
      const fs::path dir = corpusRoot() / target.name;
      ASSERT_TRUE(fs::is_directory(dir)) << dir;
      size_t inputs = 0;
      for (const auto& entry : fs::directory_iterator(dir)) {
         if (!entry.is_regular_file())
            continue;
         ++inputs;
         EXPECT_TRUE(target.run(readFile(entry.path()))) << entry.path();
      }
      EXPECT_GT(inputs, 0u) << dir;
   }
   for (const auto& entry : fs::directory_iterator(corpusRoot()))
      EXPECT_TRUE(names.contains(entry.path().filename().string())) << entry.path();
}

}  // namespace
}  // namespace Fuzz
