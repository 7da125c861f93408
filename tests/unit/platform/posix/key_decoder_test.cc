#include "platform/posix/key_decoder.h"

#include <gtest/gtest.h>

namespace talvorn::platform {
namespace {

TEST(KeyDecoder, KnowsTheKeysOfTerminals) {
  std::string bytes = "q\x1b[A\x1bOB\x1b[5~\x1b[6~\x1b[H\x1b[4~\r\x7f/\xC3\xBC\x1b";
  const std::vector<KeyPress> keys = {{Key::kCharacter, "q"},
                                      {Key::kUp},
                                      {Key::kDown},
                                      {Key::kPageUp},
                                      {Key::kPageDown},
                                      {Key::kHome},
                                      {Key::kEnd},
                                      {Key::kEnter},
                                      {Key::kBackspace},
                                      {Key::kCharacter, "/"},
                                      {Key::kCharacter, "\u00FC"},
                                      {Key::kEscape}};
  EXPECT_EQ(TakeKeys(bytes), keys);
  EXPECT_EQ(bytes, "");
}

TEST(KeyDecoder, WaitsForTheRestAndPassesOverWhatItDoesNotKnow) {
  std::string bytes = "\xE2\x82";
  EXPECT_TRUE(TakeKeys(bytes).empty());
  bytes += "\xAC\x1b[1";
  EXPECT_EQ(TakeKeys(bytes), (std::vector<KeyPress>{{Key::kCharacter, "\u20AC"}}));
  bytes += ";5C\x1b[200~\x01\xFFx\x1bz";
  EXPECT_EQ(TakeKeys(bytes), (std::vector<KeyPress>{
                                 {Key::kCharacter, "x"}, {Key::kEscape}, {Key::kCharacter, "z"}}));
}

}  // namespace
}  // namespace talvorn::platform
