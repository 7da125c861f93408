// A code page that iconv knows.
#pragma once

#include <iconv.h>

#include <mutex>
#include <string>
#include <string_view>

namespace talvorn::platform {

// Any thread may use it.
class CodePage {
 public:
  // "1251", "CP932", "utf-8,EUC-JP"; empty or "1252": Windows-1252.
  explicit CodePage(std::string_view wish);
  ~CodePage();
  CodePage(const CodePage&) = delete;
  CodePage& operator=(const CodePage&) = delete;

  // False when the wish names no code page, or one in which ASCII means something else; texts are
  // in Windows-1252 then.
  [[nodiscard]] bool known() const { return known_; }

  [[nodiscard]] std::u16string ToWide(std::string_view text) const;

 private:
  void Close();
  [[nodiscard]] std::u16string Convert(std::string_view text) const;

  bool utf8First_ = false;
  bool known_ = true;
  iconv_t converter_;         // none for Windows-1252
  mutable std::mutex mutex_;  // of the converter
};

}  // namespace talvorn::platform
