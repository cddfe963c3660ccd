// How the publisher's messages show values from a source and name kinds of keys.
#include <gtest/gtest.h>

#include <string>

#include "publish/util.h"

namespace {

TEST(Messages, ControlCharactersInAValueAreShownAndTheValueStaysOneLine) {
  EXPECT_EQ(publish::visible("0123456789"), "0123456789");
  EXPECT_EQ(publish::visible("a\tb\nc\rd"), "a\\tb\\nc\\rd");
  EXPECT_EQ(publish::visible(std::string("a\0b\x7f", 4)), "a\\x00b\\x7f");
  EXPECT_EQ(publish::shown("x\r"), "\"x\\r\"");
}

TEST(Messages, AVeryLongValueIsShortenedAfterEightyCharacters) {
  EXPECT_EQ(publish::visible(std::string(80, 'a')), std::string(80, 'a'));
  EXPECT_EQ(publish::visible(std::string(81, 'a')), std::string(80, 'a') + "...");
}

TEST(Messages, KeyKindsTakeTheArticleTheirSpokenNameTakes) {
  // Read letter by letter.
  EXPECT_EQ(publish::with_article("RSA"), "an RSA");
  EXPECT_EQ(publish::with_article("DSA"), "a DSA");
  EXPECT_EQ(publish::with_article("ECDSA"), "an ECDSA");
  EXPECT_EQ(publish::with_article("ED448"), "an ED448");
  EXPECT_EQ(publish::with_article("X25519/X448"), "an X25519/X448");
  EXPECT_EQ(publish::with_article("AES"), "an AES");
  EXPECT_EQ(publish::with_article("SM2"), "an SM2");
  // Read as words.
  EXPECT_EQ(publish::with_article("Diffie-Hellman"), "a Diffie-Hellman");
  EXPECT_EQ(publish::with_article("secret"), "a secret");
  EXPECT_EQ(publish::with_article("non-Ed25519"), "a non-Ed25519");
}

}  // namespace
