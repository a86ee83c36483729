#include "platform/addr/PrefixTrie.h"

#include <gtest/gtest.h>

namespace Platform {
namespace {

IpAddr ip(const char* text) {
   return *IpAddr::parse(text);
}
IpAddrWithMask net(const char* text) {
   return *IpAddrWithMask::parse(text);
}

TEST(PrefixTrieTest, LongestMatchAmongNestedPrefixes) {
   PrefixTrie trie;
   EXPECT_FALSE(trie.longestMatch(ip("10.1.2.3")));
   EXPECT_TRUE(trie.insert(net("10.0.0.0/8")));
   EXPECT_TRUE(trie.insert(net("10.1.2.0/24")));
   // Host bits do not matter: the same prefix.
   EXPECT_FALSE(trie.insert(net("10.1.2.77/24")));
   EXPECT_TRUE(trie.insert(net("10.1.2.128/25")));
   EXPECT_TRUE(trie.insert(net("10.1.2.3/32")));
   EXPECT_EQ(trie.size(), 4u);

   EXPECT_EQ(trie.longestMatch(ip("10.1.2.3")), net("10.1.2.3/32"));
   EXPECT_EQ(trie.longestMatch(ip("10.1.2.4")), net("10.1.2.0/24"));
   EXPECT_EQ(trie.longestMatch(ip("10.1.2.200")), net("10.1.2.128/25"));
   EXPECT_EQ(trie.longestMatch(ip("10.200.0.1")), net("10.0.0.0/8"));
   EXPECT_FALSE(trie.longestMatch(ip("11.0.0.1")));
   EXPECT_FALSE(trie.contains(net("10.1.0.0/16")));

   EXPECT_TRUE(trie.insert(net("0.0.0.0/0")));
   EXPECT_EQ(trie.longestMatch(ip("11.0.0.1")), net("0.0.0.0/0"));
   EXPECT_TRUE(trie.contains(net("0.0.0.0/0")));
}

TEST(PrefixTrieTest, RemovalKeepsTheOtherPrefixesAndReusesNodes) {
   PrefixTrie trie;
   trie.insert(net("10.1.2.0/24"));
   trie.insert(net("10.1.2.128/25"));
   trie.insert(net("10.1.0.0/16"));
   // A prefix on the path of others, a leaf, and one never there.
   EXPECT_TRUE(trie.remove(net("10.1.2.0/24")));
   EXPECT_FALSE(trie.remove(net("10.1.2.0/24")));
   EXPECT_FALSE(trie.remove(net("10.1.3.0/24")));
   EXPECT_FALSE(trie.remove(net("0.0.0.0/0")));
   EXPECT_EQ(trie.longestMatch(ip("10.1.2.4")), net("10.1.0.0/16"));
   EXPECT_EQ(trie.longestMatch(ip("10.1.2.200")), net("10.1.2.128/25"));
   EXPECT_TRUE(trie.remove(net("10.1.2.128/25")));
   EXPECT_EQ(trie.longestMatch(ip("10.1.2.200")), net("10.1.0.0/16"));
   EXPECT_TRUE(trie.remove(net("10.1.0.0/16")));
   EXPECT_TRUE(trie.empty());
   EXPECT_FALSE(trie.longestMatch(ip("10.1.2.200")));

   // Churn leaves the trie as good as new.
   for (int round = 0; round < 3; ++round) {
      ASSERT_TRUE(trie.insert(net("192.168.7.0/24")));
      ASSERT_TRUE(trie.insert(net("192.168.0.0/16")));
      ASSERT_EQ(trie.longestMatch(ip("192.168.7.9")), net("192.168.7.0/24"));
      ASSERT_TRUE(trie.remove(net("192.168.7.0/24")));
      ASSERT_EQ(trie.longestMatch(ip("192.168.7.9")), net("192.168.0.0/16"));
      ASSERT_TRUE(trie.remove(net("192.168.0.0/16")));
      ASSERT_FALSE(trie.longestMatch(ip("192.168.7.9")));
   }
}

}  // namespace
}  // namespace Platform
