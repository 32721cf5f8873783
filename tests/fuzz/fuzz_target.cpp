// One libFuzzer target: KORVEL_FUZZ_CHECK names the check of fuzz_checks.h it
// runs. An input that breaks an invariant aborts with the check's message.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "fuzz_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string failure =
      korvel::fuzz::KORVEL_FUZZ_CHECK(std::string_view(reinterpret_cast<const char*>(data), size));
  if (!failure.empty()) {
    std::fprintf(stderr, "invariant broken: %s\n", failure.c_str());
    std::abort();
  }
  return 0;
}
