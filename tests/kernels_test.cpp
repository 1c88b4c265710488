// Which variant is in use: the best one that the processor has, or the one that QUIBO_KERNELS names.

#include "dsp/kernels.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

// What the operating system says of the processor, slowest variant first.
std::vector<std::pair<std::string, std::vector<std::string>>> requirements() {
#if defined(__x86_64__)
  return {{"scalar", {}},
          {"sse2", {"sse2"}},
          {"avx2", {"avx2"}},
          {"avxvnni", {"avx2", "avx_vnni"}},
          {"avx512", {"avx512f", "avx512bw"}},
          {"avx512vnni", {"avx512f", "avx512bw", "avx512_vnni"}}};
#elif defined(__aarch64__)
  return {{"scalar", {}},
          {"neon", {"asimd"}},
          {"neon_dotprod", {"asimddp"}},
          {"neon_i8mm", {"asimddp", "i8mm"}}};
#elif defined(__arm__)
  return {{"scalar", {}}, {"neon_int8", {"neon"}}};
#else
  return {{"scalar", {}}};
#endif
}

std::set<std::string> processor_features() {
  std::ifstream file("/proc/cpuinfo");
  for (std::string line; std::getline(file, line);) {
    if (line.rfind("flags", 0) == 0 || line.rfind("Features", 0) == 0) {
      std::istringstream words(line.substr(line.find(':') + 1));
      return {std::istream_iterator<std::string>(words), {}};
    }
  }
  return {};
}

// Those that were built and that the processor has.
std::vector<std::string> expected_variants() {
  std::set<std::string> built;
#define V(isa) built.insert(#isa);
  QUIBO_VARIANTS
#undef V
  const std::set<std::string> features = processor_features();
  std::vector<std::string> variants;
  for (const auto& [name, needed] : requirements()) {
    bool has = built.count(name);
    for (const std::string& feature : needed) has = has && features.count(feature);
    if (has) variants.push_back(name);
  }
  return variants;
}

// Ends a fresh process with 0 if it uses the variant.
void expect_choice(const char* wanted, const std::string& expected) {
  EXPECT_EXIT(
      {
        wanted ? setenv("QUIBO_KERNELS", wanted, 1) : unsetenv("QUIBO_KERNELS");
        _exit(quibo::kernels().name == expected ? 0 : 1);
      },
      testing::ExitedWithCode(0), "")
      << (wanted ? wanted : "nothing") << " wanted";
}

TEST(Kernels, AreTheBestTheProcessorHasUnlessOthersAreNamed) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";  // a fresh process each, nothing chosen
  if (processor_features().empty()) GTEST_SKIP() << "the system does not tell";
  const std::vector<std::string> variants = expected_variants();
  expect_choice(nullptr, variants.back());
  expect_choice("", variants.back());
  expect_choice("nonsense", variants.back());
  for (const std::string& name : variants) expect_choice(name.c_str(), name);
}

TEST(Kernels, AvailableOnesAreListedSlowestFirstAndCanBeSwitchedTo) {
  const std::string before = quibo::kernels().name;
  std::vector<std::string> variants;
  for (int i = 0; const quibo::Kernels* k = quibo::available_kernels(i); ++i) {
    variants.push_back(k->name);
    EXPECT_TRUE(quibo::use_kernels(k->name));
    EXPECT_EQ(k, &quibo::kernels());
  }
  if (!processor_features().empty()) {
    EXPECT_EQ(expected_variants(), variants);
  }
  EXPECT_FALSE(quibo::use_kernels("nonsense"));
  EXPECT_EQ(variants.back(), quibo::kernels().name);
  quibo::use_kernels(before.c_str());
}

}  // namespace
