// A program beside the Windows locator, moved line by line by the end-to-end tests:
// each line of standard input is an order, each has one line of answer. It calls Windows
// itself, so that nothing of the product stands on both ends of an exchange.
//
//   mailslot NAME              makes a mailslot         ok ID
//   read ID                    its next message         message HEX, or none
//   write NAME HEX             a message to a mailslot  ok
//   watch EVENT                waits for an event       ok ID
//   pulses ID                  how often it was told    ok COUNT
//   exists mailslot|event|mutex NAME                    yes, or no
//   set EVENT                  whether it is set        yes, or no
//   value KEY|NAME             of the local machine     TYPE HEX
//   temporary                  the directory of its files   PATH
//   message FILE|TEXT          its message 1000 of that text, as a viewer shows it
//                                                       TEXT
//   close ID
//
// "error NUMBER" says why an order failed.
#include <windows.h>

#include <atomic>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

using Bytes = std::vector<char>;
constexpr DWORD kLargest = 8u << 20;  // of the messages that are read

std::wstring Wide(const std::string& text) {
  std::wstring wide(text.size(), L'\0');
  wide.resize(static_cast<std::size_t>(
      MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(),
                          static_cast<int>(wide.size()))));
  return wide;
}

std::string Narrow(const std::wstring& wide) {
  std::string text(3 * wide.size(), '\0');
  text.resize(static_cast<std::size_t>(
      WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), text.data(),
                          static_cast<int>(text.size()), nullptr, nullptr)));
  return text;
}

std::string Hex(const Bytes& bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * bytes.size());
  for (const char byte : bytes) {
    text += kDigits[(byte >> 4) & 15];
    text += kDigits[byte & 15];
  }
  return text;
}

Bytes FromHex(const std::string& text) {
  Bytes bytes;
  for (std::size_t at = 0; at + 1 < text.size(); at += 2) {
    bytes.push_back(static_cast<char>(std::stoi(text.substr(at, 2), nullptr, 16)));
  }
  return bytes;
}

std::string Failure() { return "error " + std::to_string(GetLastError()); }
std::string YesNo(bool yes) { return yes ? "yes" : "no"; }

class Handle {
 public:
  explicit Handle(HANDLE handle) : handle_(handle) {}
  ~Handle() {
    if (valid()) CloseHandle(handle_);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  bool valid() const { return handle_ != nullptr && handle_ != INVALID_HANDLE_VALUE; }
  HANDLE get() const { return handle_; }

 private:
  HANDLE handle_;
};

std::wstring MailslotPath(const std::string& name) { return L"\\\\.\\mailslot\\" + Wide(name); }

// What an ID stands for: a mailslot, or an event that a thread waits for.
class Thing {
 public:
  virtual ~Thing() = default;
  virtual std::string Read() { return "error 6"; }
  virtual std::string Pulses() { return "error 6"; }
};

class Mailslot : public Thing {
 public:
  explicit Mailslot(const std::string& name)
      : handle_(CreateMailslotW(MailslotPath(name).c_str(), 0, 0, nullptr)) {}
  bool valid() const { return handle_.valid(); }

  std::string Read() override {
    DWORD size = 0;
    if (!GetMailslotInfo(handle_.get(), nullptr, &size, nullptr, nullptr)) return Failure();
    if (size == MAILSLOT_NO_MESSAGE) return "none";
    Bytes message(kLargest);  // Wine tells of no size above 64 KiB
    DWORD got = 0;
    if (!ReadFile(handle_.get(), message.data(), kLargest, &got, nullptr)) return Failure();
    message.resize(got);
    return "message " + Hex(message);
  }

 private:
  Handle handle_;
};

// A client's event, made as a client makes it: manual-reset, not set. Pulses count from
// the moment the order is answered.
class WatchedEvent : public Thing {
 public:
  explicit WatchedEvent(const std::string& name)
      : event_(CreateEventW(nullptr, TRUE, FALSE, Wide(name).c_str())),
        end_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
    if (!valid()) return;
    waiter_ = std::thread([this] {
      const HANDLE handles[] = {end_.get(), event_.get()};
      while (WaitForMultipleObjects(2, handles, FALSE, INFINITE) == WAIT_OBJECT_0 + 1) ++pulses_;
    });
  }
  ~WatchedEvent() override {
    SetEvent(end_.get());
    if (waiter_.joinable()) waiter_.join();
  }
  bool valid() const { return event_.valid() && end_.valid(); }
  std::string Pulses() override { return "ok " + std::to_string(pulses_.load()); }

 private:
  Handle event_, end_;
  std::atomic<int> pulses_ = 0;
  std::thread waiter_;
};

class Probe {
 public:
  std::string Obey(const std::string& line) {
    std::istringstream words(line);
    std::string order, all;
    words >> order;
    std::getline(words >> std::ws, all);
    if (order == "mailslot") return Keep<Mailslot>(all);
    if (order == "watch") return Keep<WatchedEvent>(all);
    if (order == "temporary") return Temporary();
    if (order == "set") return IsSet(all);
    if (order == "value") return With(all, '|', Value);
    if (order == "message") return With(all, '|', Message);
    if (order == "write") return With(all, ' ', Write);
    if (order == "exists") return With(all, ' ', Exists);
    const auto found = things_.find(std::atoi(all.c_str()));
    if (found == things_.end()) return "error 6";
    if (order == "read") return found->second->Read();
    if (order == "pulses") return found->second->Pulses();
    if (order == "close") return things_.erase(found), "ok";
    return "error 1";
  }

 private:
  static std::string With(const std::string& text, char separator,
                          std::string (*call)(const std::string&, const std::string&)) {
    const std::size_t at = text.find(separator);
    if (at == std::string::npos) return "error 87";
    return call(text.substr(0, at), text.substr(at + 1));
  }

  template <typename Kind>
  std::string Keep(const std::string& name) {
    auto thing = std::make_unique<Kind>(name);
    if (!thing->valid()) return Failure();
    things_[++last_] = std::move(thing);
    return "ok " + std::to_string(last_);
  }

  static std::string Write(const std::string& name, const std::string& hex) {
    const Handle slot(OpenMailslot(name));
    if (!slot.valid()) return Failure();
    const Bytes message = FromHex(hex);
    DWORD written = 0;
    if (!WriteFile(slot.get(), message.data(), static_cast<DWORD>(message.size()), &written,
                   nullptr)) {
      return Failure();
    }
    return "ok";
  }

  // A mailslot has one writer at a time; one that was killed may keep it for a while.
  static HANDLE OpenMailslot(const std::string& name) {
    constexpr int kAttempts = 10'000;
    for (int attempt = 1;; ++attempt) {
      const HANDLE slot =
          CreateFileW(MailslotPath(name).c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                      nullptr, OPEN_EXISTING, 0, nullptr);
      if (slot != INVALID_HANDLE_VALUE || GetLastError() != ERROR_SHARING_VIOLATION ||
          attempt == kAttempts) {
        return slot;
      }
      Sleep(1);
    }
  }

  static std::string Exists(const std::string& kind, const std::string& name) {
    const Handle handle(kind == "mailslot" ? OpenMailslot(name)
                        : kind == "event"  ? OpenEventW(SYNCHRONIZE, FALSE, Wide(name).c_str())
                                           : OpenMutexW(SYNCHRONIZE, FALSE, Wide(name).c_str()));
    return YesNo(handle.valid());
  }

  static std::string IsSet(const std::string& name) {
    const Handle event(OpenEventW(SYNCHRONIZE, FALSE, Wide(name).c_str()));
    if (!event.valid()) return Failure();
    return YesNo(WaitForSingleObject(event.get(), 0) == WAIT_OBJECT_0);
  }

  static std::string Value(const std::string& key, const std::string& name) {
    DWORD type = 0;
    Bytes data(4096);
    DWORD size = static_cast<DWORD>(data.size());
    const LSTATUS status = RegGetValueW(HKEY_LOCAL_MACHINE, Wide(key).c_str(), Wide(name).c_str(),
                                        RRF_RT_ANY, &type, data.data(), &size);
    if (status != ERROR_SUCCESS) return "error " + std::to_string(status);
    data.resize(size);
    return std::to_string(type) + " " + Hex(data);
  }

  static std::string Temporary() {
    wchar_t path[MAX_PATH + 1];
    const DWORD length = GetTempPathW(MAX_PATH + 1, path);
    return length == 0 ? Failure() : Narrow({path, length});
  }

  static std::string Message(const std::string& file, const std::string& text) {
    const HMODULE module = LoadLibraryExW(Wide(file).c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
    if (module == nullptr) return Failure();
    wchar_t shown[1000];
    const std::wstring wide = Wide(text);
    const DWORD_PTR insertions[] = {reinterpret_cast<DWORD_PTR>(wide.c_str())};
    const DWORD length =
        FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY, module, 1000, 0,
                       shown, 1000, reinterpret_cast<va_list*>(const_cast<DWORD_PTR*>(insertions)));
    const std::string result = length == 0 ? Failure() : Narrow({shown, length});
    FreeLibrary(module);
    return result.substr(0, result.find('\r'));
  }

  std::map<int, std::unique_ptr<Thing>> things_;
  int last_ = 0;
};

}  // namespace

int main() {
  Probe probe;
  std::string line;
  while (std::getline(std::cin, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::cout << probe.Obey(line) << std::endl;
  }
}
