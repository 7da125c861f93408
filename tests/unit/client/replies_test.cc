#include "client/replies.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "support/byte_io.h"

namespace talvorn {
namespace {

using namespace std::string_view_literals;
using Bytes = std::vector<std::byte>;

// A reply whose header says what is given.
Bytes Reply(std::uint32_t length, std::uint32_t type, std::uint32_t count,
            std::string_view payload) {
  Bytes reply(12 + payload.size());
  ByteWriter writer(reply);
  writer.U32Little(length);
  writer.U32Little(type);
  writer.U32Little(count);
  writer.Bytes(AsBytes(payload));
  return reply;
}

Bytes HonestReply(std::uint32_t type, std::uint32_t count, std::string_view payload) {
  return Reply(static_cast<std::uint32_t>(12 + payload.size()), type, count, payload);
}

// An entry of the item snapshot, by hand: serial 1234567, then an item with four bytes
// of content.
constexpr std::string_view kEntry =
    "\x87\xD6\x12\x00"
    "\x00\x00\x00\x1C"
    "header bytes"
    "\x00\x00\x00\x40"
    "\x00\x00\x00\x08"
    "abcd"sv;

template <class Decode>
void ExpectEveryPrefixRefused(const Bytes& reply, Decode decode) {
  ASSERT_TRUE(decode(reply));
  for (std::size_t size = 0; size < reply.size(); ++size) {
    // Cut as it is, and with a header that owns up to it.
    Bytes cut(reply.begin(), reply.begin() + static_cast<std::ptrdiff_t>(size));
    EXPECT_FALSE(decode(cut)) << size;
    if (size < 4) continue;
    ByteWriter(cut).U32Little(static_cast<std::uint32_t>(size));
    EXPECT_FALSE(decode(cut)) << size;
  }
  Bytes longer = reply;
  longer.push_back(std::byte{0});
  EXPECT_FALSE(decode(longer));
  ByteWriter(longer).U32Little(static_cast<std::uint32_t>(longer.size()));
  EXPECT_FALSE(decode(longer));
}

TEST(Replies, TextIsExactlyWhatTheHeaderSays) {
  const auto decode = [](const Bytes& reply) {
    return DecodeTextReply(reply, ReplyType::kVersion);
  };
  const Bytes reply = HonestReply(2, 8, "1.0.0.0\0"sv);
  EXPECT_EQ(decode(reply), "1.0.0.0");
  ExpectEveryPrefixRefused(reply, decode);

  EXPECT_FALSE(DecodeTextReply(reply, ReplyType::kLogPath));
  EXPECT_FALSE(decode(HonestReply(2, 7, "1.0.0.0"sv)));    // no terminator
  EXPECT_FALSE(decode(HonestReply(2, 8, "1.0\0.0.0"sv)));  // an early one
  EXPECT_FALSE(decode(HonestReply(2, 9, "1.0.0.0\0"sv)));  // more than there is
}

TEST(Replies, DevicesStandBackToBack) {
  std::string payload(2 * kDeviceRecordSize, '\0');
  payload.replace(kDeviceRecordSize + 94, 2, "42");
  const Bytes reply = HonestReply(3, 2, payload);
  const auto devices = DecodeDevicesReply(reply);
  ASSERT_TRUE(devices);
  ASSERT_EQ(devices->size(), 2u);
  EXPECT_EQ(devices->back().deviceSerial.view(), "42");
  ExpectEveryPrefixRefused(reply, DecodeDevicesReply);

  // No devices: one record of zeros all the same.
  const std::string zeros(kDeviceRecordSize, '\0');
  EXPECT_TRUE(DecodeDevicesReply(HonestReply(3, 0, zeros)).value().empty());
  EXPECT_FALSE(DecodeDevicesReply(HonestReply(3, 0, "")));

  // Counts whose product with the record size is right only when it wraps.
  for (const std::uint32_t count : {1u, 3u, 0x80000002u, 0xFFFFFFFFu})
    EXPECT_FALSE(DecodeDevicesReply(HonestReply(3, count, payload))) << count;
  EXPECT_FALSE(DecodeDevicesReply(HonestReply(4, 2, payload)));
}

TEST(Replies, ItemsAreCutByTheirOwnLengths) {
  std::string payload(kEntry);
  payload.append(kEntry);
  payload[kEntry.size()] = '\x01';  // another serial
  const Bytes reply = HonestReply(4, static_cast<std::uint32_t>(payload.size()), payload);
  const auto items = DecodeItemsReply(reply);
  ASSERT_TRUE(items);
  ASSERT_EQ(items->size(), 2u);
  const DeviceItem& item = items->front();
  EXPECT_EQ(item.serial, 1'234'567u);
  EXPECT_EQ(item.hashLength, 28u);
  EXPECT_EQ(item.nextOffset, 64u);
  EXPECT_EQ(AsText(item.bytes), kEntry.substr(4));
  EXPECT_EQ(AsText(item.header()), "header bytes");
  EXPECT_EQ(AsText(item.content()), "abcd");
  ExpectEveryPrefixRefused(reply, DecodeItemsReply);

  // No items: one zero byte all the same.
  EXPECT_TRUE(DecodeItemsReply(HonestReply(4, 0, "\0"sv)).value().empty());
  EXPECT_FALSE(DecodeItemsReply(HonestReply(4, 0, "")));
}

TEST(Replies, ItemsWithLyingLengths) {
  const auto decode = [](const std::string& entry) {
    return DecodeItemsReply(HonestReply(4, static_cast<std::uint32_t>(entry.size()), entry));
  };
  // The body's length: shorter than itself, cutting the entry, past its end, wrapping.
  for (const std::string_view length :
       {"\0\0\0\0"sv, "\0\0\0\x03"sv, "\0\0\0\x07"sv, "\0\0\0\x09"sv, "\xFF\xFF\xFF\xEC"sv,
        "\xFF\xFF\xFF\xFF"sv}) {
    std::string entry(kEntry);
    entry.replace(24, 4, length);
    EXPECT_FALSE(decode(entry)) << static_cast<int>(length[3]);
  }
  // What identifies the item may reach past it; as much as there is counts.
  std::string entry(kEntry);
  entry.replace(4, 4, "\xFF\xFF\xFF\xFF"sv);
  const auto items = decode(entry);
  ASSERT_TRUE(items);
  EXPECT_EQ(items->front().identity().size(), 28u);
}

}  // namespace
}  // namespace talvorn
