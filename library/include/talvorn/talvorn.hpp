// talvorn.h for C++17: handles that close themselves, lists that can be walked.
//
//   talvorn::Client client;
//   if (const auto devices = client.devices())
//     for (const talvorn::Device device : *devices) std::cout << device.serial << '\n';
//   else
//     std::cerr << devices.status().text() << '\n';
//
// Nothing here throws anything but std::bad_alloc. What could not be opened says why in its
// status(), and every call on it ends so. What talvorn.h says of threads holds here.
#ifndef TALVORN_TALVORN_HPP
#define TALVORN_TALVORN_HPP

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "talvorn/talvorn.h"

namespace talvorn {

// How a call ended: one of TALVORN_OK and its fellows.
class Status {
 public:
  constexpr Status(talvorn_status code = TALVORN_OK) : code_(code) {}

  constexpr explicit operator bool() const { return code_ == TALVORN_OK; }
  constexpr talvorn_status code() const { return code_; }
  const char* text() const { return talvorn_status_text(code_); }

  friend constexpr bool operator==(Status a, Status b) { return a.code_ == b.code_; }
  friend constexpr bool operator!=(Status a, Status b) { return a.code_ != b.code_; }

 private:
  talvorn_status code_;
};

// What was asked for, or the reason why it is not there.
template <class T>
class Result {
 public:
  Result(Status status) : status_(status) {}
  Result(T value) : value_(std::move(value)) {}

  explicit operator bool() const { return value_.has_value(); }
  Status status() const { return status_; }
  // Only when there is one.
  const T& operator*() const& { return *value_; }
  T&& operator*() && { return *std::move(value_); }
  const T* operator->() const { return &*value_; }
  const std::optional<T>& value() const { return value_; }

 private:
  Status status_;
  std::optional<T> value_;
};

// Bytes that belong to a list.
struct Bytes {
  const std::uint8_t* first = nullptr;
  std::size_t count = 0;

  const std::uint8_t* data() const { return first; }
  std::size_t size() const { return count; }
  const std::uint8_t* begin() const { return first; }
  const std::uint8_t* end() const { return first + count; }
};

// See talvorn_device and talvorn_item. Texts and bytes stand as long as the list.
struct Device {
  std::string_view serial, alias, status, clip, ipv4, ipv6, hostAlias, hostIpv4, hostIpv6;
  std::uint32_t number = 0;
};

struct Item {
  std::string_view digest;
  Bytes header, content, bytes;
  std::uint32_t device = 0, hashLength = 0, nextOffset = 0;
};

namespace detail {

template <class Handle, void (*Close)(Handle*)>
struct Closer {
  void operator()(Handle* handle) const { Close(handle); }
};
template <class Handle, void (*Close)(Handle*)>
using Owned = std::unique_ptr<Handle, Closer<Handle, Close>>;

struct DeviceTraits {
  using Handle = talvorn_device_list;
  using Value = Device;
  using Owner = Owned<Handle, talvorn_device_list_free>;

  static std::size_t Size(const Handle* list) { return talvorn_device_list_size(list); }
  static Device At(const Handle* list, std::size_t index) {
    talvorn_device from{};
    from.size = sizeof from;
    (void)talvorn_device_list_get(list, index, &from);
    return {from.serial, from.alias,      from.status,    from.clip,      from.ipv4,
            from.ipv6,   from.host_alias, from.host_ipv4, from.host_ipv6, from.number};
  }
};

struct ItemTraits {
  using Handle = talvorn_item_list;
  using Value = Item;
  using Owner = Owned<Handle, talvorn_item_list_free>;
  static constexpr std::size_t kHeaderSize = 12;

  static std::size_t Size(const Handle* list) { return talvorn_item_list_size(list); }
  static Item At(const Handle* list, std::size_t index) {
    talvorn_item from{};
    from.size = sizeof from;
    (void)talvorn_item_list_get(list, index, &from);
    return {from.digest,
            {from.header, kHeaderSize},
            {from.content, from.content_size},
            {from.bytes, from.bytes_size},
            from.device,
            from.hash_length,
            from.next_offset};
  }
};

}  // namespace detail

template <class Traits>
class List {
 public:
  using value_type = typename Traits::Value;

  class iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = typename Traits::Value;
    using difference_type = std::ptrdiff_t;
    using pointer = const value_type*;
    using reference = value_type;

    iterator() = default;
    iterator(const typename Traits::Handle* list, std::size_t index) : list_(list), index_(index) {}

    value_type operator*() const { return Traits::At(list_, index_); }
    iterator& operator++() {
      ++index_;
      return *this;
    }
    iterator operator++(int) { return {list_, index_++}; }
    friend bool operator==(const iterator& a, const iterator& b) { return a.index_ == b.index_; }
    friend bool operator!=(const iterator& a, const iterator& b) { return !(a == b); }

   private:
    const typename Traits::Handle* list_ = nullptr;
    std::size_t index_ = 0;
  };
  using const_iterator = iterator;

  // Takes the handle over.
  explicit List(typename Traits::Handle* list) : list_(list) {}

  std::size_t size() const { return Traits::Size(list_.get()); }
  bool empty() const { return size() == 0; }
  // `index` is below size().
  value_type operator[](std::size_t index) const { return Traits::At(list_.get(), index); }
  iterator begin() const { return {list_.get(), 0}; }
  iterator end() const { return {list_.get(), size()}; }

 private:
  typename Traits::Owner list_;
};

using DeviceList = List<detail::DeviceTraits>;  // in ascending order of the serials as texts
using ItemList = List<detail::ItemTraits>;      // newest first

class Client {
 public:
  explicit Client(std::chrono::milliseconds timeout = std::chrono::seconds(3)) {
    talvorn_client_options options{};
    options.size = sizeof options;
    options.timeout_ms = static_cast<std::uint32_t>(timeout.count());
    talvorn_client* client = nullptr;
    status_ = talvorn_client_open(&options, &client);
    client_.reset(client);
  }

  Status status() const { return status_; }
  // From any thread: ends the request that runs, or the next one.
  void interrupt() { talvorn_client_interrupt(client_.get()); }

  Result<std::string> version() { return Text(talvorn_client_get_version); }
  Result<DeviceList> devices() {
    return Get<DeviceList, talvorn_device_list>(talvorn_client_get_devices);
  }
  Result<ItemList> items() { return Get<ItemList, talvorn_item_list>(talvorn_client_get_items); }

  Result<std::string> logPath() { return Text(talvorn_client_get_log_path); }
  Status setLogPath(const std::string& path) {
    return Tell(
        [&](talvorn_client* client) { return talvorn_client_set_log_path(client, path.c_str()); });
  }
  Status resetLogPath() {
    return Tell(
        [](talvorn_client* client) { return talvorn_client_set_log_path(client, nullptr); });
  }
  Status startLog() { return Tell(talvorn_client_start_log); }
  Status stopLog() { return Tell(talvorn_client_stop_log); }

 private:
  template <class Call>
  Status Tell(Call call) {
    return client_ ? Status(call(client_.get())) : status_;
  }
  Result<std::string> Text(talvorn_status (*call)(talvorn_client*, const char**)) {
    const char* text = nullptr;
    const Status status = Tell([&](talvorn_client* client) { return call(client, &text); });
    return status ? Result<std::string>(std::string(text)) : status;
  }
  template <class Owner, class Handle>
  Result<Owner> Get(talvorn_status (*call)(talvorn_client*, Handle**)) {
    Handle* list = nullptr;
    const Status status = Tell([&](talvorn_client* client) { return call(client, &list); });
    return status ? Result<Owner>(Owner(list)) : status;
  }

  Status status_;
  detail::Owned<talvorn_client, talvorn_client_close> client_;
};

// Says when it is time to read the lists again.
class Watch {
 public:
  // Of the items of the device with this number, or of all (0).
  explicit Watch(std::uint32_t device = 0,
                 std::chrono::milliseconds interval = std::chrono::seconds(5)) {
    talvorn_watch_options options{};
    options.size = sizeof options;
    options.device = device;
    options.interval_ms = static_cast<std::uint32_t>(interval.count());
    talvorn_watch* watch = nullptr;
    status_ = talvorn_watch_open(&options, &watch);
    watch_.reset(watch);
  }

  Status status() const { return status_; }
  // TALVORN_OK when it is time, TALVORN_TIMEOUT when it is not within `limit`.
  Status wait(std::chrono::milliseconds limit) {
    if (!watch_) return status_;
    return talvorn_watch_wait(watch_.get(), static_cast<std::uint32_t>(limit.count()));
  }
  // For an event loop, see talvorn_watch_get_waitable().
  talvorn_waitable waitable() const { return talvorn_watch_get_waitable(watch_.get()); }

 private:
  Status status_;
  detail::Owned<talvorn_watch, talvorn_watch_close> watch_;
};

// A locator that was started with /dynamic stays as long as there is one.
class Presence {
 public:
  Presence() {
    talvorn_presence* presence = nullptr;
    status_ = talvorn_presence_open(&presence);
    presence_.reset(presence);
  }

  Status status() const {
    return presence_ ? Status(talvorn_presence_get_status(presence_.get())) : status_;
  }

 private:
  Status status_;
  detail::Owned<talvorn_presence, talvorn_presence_close> presence_;
};

// Asks the locator to take up the interface with this IPv4 address anew; TALVORN_PENDING.
inline Status requestReinitialisation(const std::string& ipv4) {
  return talvorn_reinitialisation_request(ipv4.c_str());
}
inline Status queryReinitialisation(const std::string& ipv4) {
  return talvorn_reinitialisation_query(ipv4.c_str());
}

}  // namespace talvorn

#endif
