#include "containers/NameCache.h"

#include <zel/HashSet.h>
#include <zel/Name.h>

#include <gtest/gtest.h>

#include <cstring>
#include <iomanip>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using zel::Name;
using zel::detail::NameCache;
using zel::detail::NameHeader;

zel::uint32 wordBefore(const char* text, int offset) {
    zel::uint32 word = 0;
    std::memcpy(&word, text - offset, sizeof(word));
    return word;
}

TEST(NameTest, IsOnePointer) {
    static_assert(sizeof(Name) == sizeof(void*));
    const Name name("position");
    const char* pointer = nullptr;
    std::memcpy(&pointer, &name, sizeof(pointer));
    EXPECT_EQ(pointer, name.c_str());
}

TEST(NameTest, TheSameTextIsTheSameArray) {
    const Name fromText("position");
    const Name fromStandardString(std::string("position"));
    const Name fromString(zel::String("position"));
    EXPECT_EQ(fromText.c_str(), fromStandardString.c_str());
    EXPECT_EQ(fromText.c_str(), fromString.c_str());
    EXPECT_EQ(fromText, fromString);
    EXPECT_NE(fromText, Name("velocity"));
    EXPECT_STREQ(fromText.c_str(), "position");
}

TEST(NameTest, CountAndLengthLieAheadOfTheText) {
    const Name name("position");
    const Name second(name); // NOLINT(performance-unnecessary-copy-initialization): counts
    EXPECT_EQ(wordBefore(name.c_str(), 8), 2U);
    EXPECT_EQ(wordBefore(name.c_str(), 4), 8U);
    EXPECT_EQ(name.length(), 8U);
    EXPECT_EQ(name.useCount(), 2U);
}

TEST(NameTest, EmptyTextsAreTheDefaultByPointer) {
    const Name none;
    EXPECT_EQ(Name("").c_str(), none.c_str());
    EXPECT_EQ(Name(std::string()).c_str(), none.c_str());
    EXPECT_EQ(Name(zel::String()).c_str(), none.c_str());
    EXPECT_EQ(Name(static_cast<const char*>(nullptr)).c_str(), none.c_str());
    EXPECT_TRUE(none.empty());
    EXPECT_STREQ(none.c_str(), "");
    EXPECT_EQ(none.length(), 0U);
}

TEST(NameTest, EmptyNamesCountLikeOthers) {
    const Name none;
    const zel::uint32 before = none.useCount();
    const std::vector<Name> more(10);
    EXPECT_EQ(none.useCount(), before + 10);
}

TEST(NameTest, CopiesAndMovesKeepTheCount) {
    Name name("counted");
    {
        const Name copy(name);
        EXPECT_EQ(name.useCount(), 2U);
        Name assigned;
        assigned = name;
        EXPECT_EQ(name.useCount(), 3U);
        assigned = Name("other");
        EXPECT_EQ(name.useCount(), 2U);
        const Name moved(std::move(assigned));
        EXPECT_EQ(moved, Name("other"));
        EXPECT_TRUE(assigned.empty()); // NOLINT(bugprone-use-after-move): a moved-from name is empty
    }
    EXPECT_EQ(name.useCount(), 1U);
    const Name& same = name;
    name = same;
    EXPECT_EQ(name.useCount(), 1U);
    EXPECT_STREQ(name.c_str(), "counted");
}

TEST(NameTest, ANameThatDiedCanBeMadeAnew) {
    for (int i = 0; i < 3; ++i) {
        const Name name("comes and goes");
        EXPECT_STREQ(name.c_str(), "comes and goes");
        EXPECT_EQ(name.useCount(), 1U);
        EXPECT_TRUE(Name::cacheExists());
    }
}

TEST(NameTest, AnInternedTextEndsAtItsFirstZero) {
    EXPECT_EQ(Name(std::string("a\0b", 3)), Name("a"));
    EXPECT_EQ(Name(std::string("\0b", 2)), Name());
}

TEST(NameTest, ConvertsToStrings) {
    const Name name("position");
    const zel::String string = name;
    const std::string standard = name;
    EXPECT_EQ(string, "position");
    EXPECT_EQ(standard, "position");
    EXPECT_EQ(name.str(), "position");
}

TEST(NameTest, ConcatenationGivesAString) {
    const Name name("a");
    static_assert(std::is_same_v<decltype(name + name), zel::String>);
    static_assert(std::is_same_v<decltype(name + "b"), zel::String>);
    EXPECT_EQ(name + Name("b"), "ab");
    EXPECT_EQ(name + "b", "ab");
    EXPECT_EQ("b" + name, "ba");
    EXPECT_EQ(name + std::string("b"), "ab");
    EXPECT_EQ(std::string("b") + name, "ba");
    EXPECT_EQ(name + zel::String("b"), "ab");
    EXPECT_EQ(zel::String("b") + name, "ba");
}

TEST(NameTest, StreamsItsText) {
    std::ostringstream stream;
    stream << Name("position") << '|' << std::setw(4) << Name("a") << '|' << Name();
    EXPECT_EQ(stream.str(), "position|   a|");
}

TEST(NameTest, IsAKey) {
    zel::HashSet<Name> set;
    for (int i = 0; i < 1000; ++i)
        set.insert(Name("key " + std::to_string(i)));
    EXPECT_EQ(set.size(), 1000U);
    EXPECT_TRUE(set.contains(Name("key 567")));
    EXPECT_FALSE(set.contains(Name("key 1000")));
}

TEST(NameTest, ManyTextsStayApart) {
    std::vector<Name> names;
    for (int i = 0; i < 20'000; ++i)
        names.emplace_back("text number " + std::to_string(i));
    for (int i = 0; i < 20'000; ++i) {
        const auto& name = names[static_cast<size_t>(i)];
        ASSERT_EQ(name.str(), "text number " + std::to_string(i));
        ASSERT_EQ(name.useCount(), 1U);
    }
}

// The cache by itself. The library's own has the names of the library's statics in it.

/// What the destructor of a name does first: whether the array is now the caller's to destroy.
bool release(char* text) {
    return NameHeader::of(text).count.fetch_sub(1) == 1;
}

TEST(NameCacheTest, ComesWithTheFirstTextAndGoesWithTheLast) {
    NameCache cache;
    EXPECT_FALSE(cache.exists());
    char* a = cache.intern("a");
    char* b = cache.intern("b");
    ASSERT_TRUE(release(a));
    cache.destroy(a);
    EXPECT_TRUE(cache.exists());
    ASSERT_TRUE(release(b));
    cache.destroy(b);
    EXPECT_FALSE(cache.exists());
    char* again = cache.intern("a");
    EXPECT_STREQ(again, "a");
    EXPECT_TRUE(cache.exists());
    ASSERT_TRUE(release(again));
    cache.destroy(again);
}

TEST(NameCacheTest, AKnownTextIsCountedAndSharedByItsUsers) {
    NameCache cache;
    char* first = cache.intern("shared");
    EXPECT_EQ(cache.intern("shared"), first);
    EXPECT_EQ(NameHeader::of(first).count.load(), 2U);
    EXPECT_FALSE(release(first));
    ASSERT_TRUE(release(first));
    cache.destroy(first);
}

TEST(NameCacheTest, ATextThatReachedZeroIsLeftToItsDestroyerAndRenewed) {
    NameCache cache;
    char* dying = cache.intern("text");
    ASSERT_TRUE(release(dying)); // its destroyer is on the way to the mutex
    char* fresh = cache.intern("text");
    EXPECT_NE(fresh, dying);
    EXPECT_STREQ(fresh, "text");
    EXPECT_EQ(NameHeader::of(dying).count.load(), NameCache::Disowned);
    EXPECT_EQ(NameHeader::of(fresh).count.load(), 1U);

    cache.destroy(dying); // leaves the table's entry alone
    EXPECT_EQ(cache.intern("text"), fresh);
    EXPECT_FALSE(release(fresh));
    ASSERT_TRUE(release(fresh));
    cache.destroy(fresh);
    EXPECT_FALSE(cache.exists());
}

TEST(NameCacheTest, ATextMayBeRenewedWhileSeveralDestroyersWait) {
    NameCache cache;
    char* first = cache.intern("text");
    ASSERT_TRUE(release(first));
    char* second = cache.intern("text");
    ASSERT_TRUE(release(second));
    char* third = cache.intern("text");
    cache.destroy(second);
    cache.destroy(first);
    EXPECT_EQ(cache.intern("text"), third);
    EXPECT_FALSE(release(third));
    ASSERT_TRUE(release(third));
    cache.destroy(third);
    EXPECT_FALSE(cache.exists());
}

TEST(NameCacheTest, ALateDestroyerFindsTheCacheGone) {
    NameCache cache;
    char* dying = cache.intern("text");
    ASSERT_TRUE(release(dying));
    char* fresh = cache.intern("text");
    ASSERT_TRUE(release(fresh));
    cache.destroy(fresh);
    EXPECT_FALSE(cache.exists());
    cache.destroy(dying);
    EXPECT_FALSE(cache.exists());
}

} // namespace
