// What the C interface promises without a locator: layouts, sizes, arguments.
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <string>

#include "talvorn/talvorn.h"

namespace {

// Programs that were built against version 1 have these.
static_assert(sizeof(talvorn_client_options) == 24);
static_assert(offsetof(talvorn_client_options, timeout_ms) == 8);
static_assert(offsetof(talvorn_client_options, reply_mailslot) == 16);
static_assert(sizeof(talvorn_watch_options) == 16);
static_assert(offsetof(talvorn_watch_options, interval_ms) == 12);
static_assert(sizeof(talvorn_device) == 88);
static_assert(offsetof(talvorn_device, serial) == 8);
static_assert(offsetof(talvorn_device, host_ipv6) == 72);
static_assert(offsetof(talvorn_device, number) == 80);
static_assert(sizeof(talvorn_item) == 72);
static_assert(offsetof(talvorn_item, content_size) == 32);
static_assert(offsetof(talvorn_item, next_offset) == 64);

TEST(Library, EachStatusHasATextOfItsOwn) {
  std::string before;
  for (talvorn_status status = TALVORN_OK; status <= TALVORN_NO_RESOURCES; ++status) {
    const std::string text = talvorn_status_text(status);
    EXPECT_STRNE(text.c_str(), talvorn_status_text(TALVORN_NO_RESOURCES + 1)) << status;
    EXPECT_NE(text, before);
    before = text;
  }
  EXPECT_STRNE(talvorn_status_text(-1), "");
}

// A structure of a later version: the library's, and more.
template <class Structure>
struct Larger {
  Structure known{};
  std::array<char, 16> more{};
};

TEST(Library, OptionsOfALaterVersionAreTakenUnlessTheyAskForMore) {
  talvorn_client* client = nullptr;
  Larger<talvorn_client_options> options;
  options.known.size = sizeof options;
  EXPECT_EQ(talvorn_client_open(&options.known, &client), TALVORN_OK);
  talvorn_client_close(client);
  client = nullptr;
  options.more.back() = 1;
  EXPECT_EQ(talvorn_client_open(&options.known, &client), TALVORN_NOT_SUPPORTED);
  EXPECT_EQ(client, nullptr);

  Larger<talvorn_watch_options> watching;
  talvorn_watch* watch = nullptr;
  watching.known.size = sizeof watching;
  watching.more.front() = 1;
  EXPECT_EQ(talvorn_watch_open(&watching.known, &watch), TALVORN_NOT_SUPPORTED);
  EXPECT_EQ(watch, nullptr);
}

TEST(Library, RefusesWhatCannotBe) {
  talvorn_client* client = nullptr;
  talvorn_client_options options{sizeof options - 1, 0, nullptr};
  EXPECT_EQ(talvorn_client_open(&options, &client), TALVORN_BAD_ARGUMENT);
  options = {sizeof options, 0, "no mailslot's name"};
  EXPECT_EQ(talvorn_client_open(&options, &client), TALVORN_BAD_ARGUMENT);
  EXPECT_EQ(talvorn_client_open(nullptr, nullptr), TALVORN_BAD_ARGUMENT);

  const char* text = nullptr;
  EXPECT_EQ(talvorn_client_get_version(nullptr, &text), TALVORN_BAD_ARGUMENT);
  ASSERT_EQ(talvorn_client_open(nullptr, &client), TALVORN_OK);
  EXPECT_EQ(talvorn_client_get_devices(client, nullptr), TALVORN_BAD_ARGUMENT);
  talvorn_client_close(client);

  talvorn_device device{};
  EXPECT_EQ(talvorn_device_list_get(nullptr, 0, &device), TALVORN_BAD_ARGUMENT);
  EXPECT_EQ(talvorn_device_list_size(nullptr), 0u);
  EXPECT_EQ(talvorn_watch_wait(nullptr, 0), TALVORN_BAD_ARGUMENT);
  EXPECT_EQ(talvorn_watch_get_waitable(nullptr), -1);
  for (const char* address : {"", "localhost", "10.0.0", "fe80::1"})
    EXPECT_EQ(talvorn_reinitialisation_request(address), TALVORN_BAD_ARGUMENT) << address;

  talvorn_client_close(nullptr);
  talvorn_device_list_free(nullptr);
  talvorn_item_list_free(nullptr);
  talvorn_watch_close(nullptr);
  talvorn_presence_close(nullptr);
}

}  // namespace
