// A static-devices file of any content: names and values are terminated and cut to
// their buffers, and a value that fits a larger buffer begins with what a smaller
// one got.
#include <array>
#include <string>
#include <vector>

#include "fuzz_target.h"
#include "platform/posix/forms/ini_text.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace talvorn::platform;
  const IniText ini(std::string_view(reinterpret_cast<const char*>(data), size));

  std::vector<char16_t> names(4 * size + 64, u'#');
  const std::uint32_t length = ini.SectionNames(names);
  FUZZ_EXPECT(length + 2 < names.size());
  FUZZ_EXPECT(names[length] == u'\0' && (length == 0 || names[length - 1] == u'\0'));

  std::array<char16_t, 4> probe{};
  const std::uint32_t probed = ini.SectionNames(probe);
  FUZZ_EXPECT(probed <= 3 && (probed == 0) == (length == 0));

  for (std::size_t at = 0; at < length;) {
    const std::u16string name(&names[at]);
    FUZZ_EXPECT(!name.empty());
    std::array<char16_t, 8> small{};
    std::vector<char16_t> large(size + 64, u'#');
    const std::uint32_t cut = ini.String(name, u"IpAddress", small);
    const std::uint32_t whole = ini.String(name, u"IpAddress", large);
    FUZZ_EXPECT(small[cut] == u'\0' && large[whole] == u'\0' && cut <= whole);
    FUZZ_EXPECT(std::u16string(small.data(), cut) == std::u16string(large.data(), cut));
    at += name.size() + 1;
  }
  return 0;
}
