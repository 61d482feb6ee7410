#include <zel/Path.h>

#include <sstream>
#include <vector>

using zel::Name;
using zel::Path;

TEST(PathTest, DropsALeadingAt) {
    EXPECT_EQ(Path("@a.b"), Path("a.b"));
    EXPECT_EQ(Path("a@b").str(), "a@b");
}

TEST(PathTest, SplitsAtTheFirstAndLastSeparator) {
    const Path path("a.b.c");
    EXPECT_EQ(path.root(), Name("a"));
    EXPECT_EQ(path.tail(), Path("b.c"));
    EXPECT_EQ(path.back(), Name("c"));
    EXPECT_EQ(path.base(), Path("a.b"));
    EXPECT_TRUE(path.hasTail());
}

TEST(PathTest, OfOnePartIsItsRootAndItsBack) {
    const Path path("a");
    EXPECT_EQ(path.root(), Name("a"));
    EXPECT_EQ(path.back(), Name("a"));
    EXPECT_TRUE(path.tail().empty());
    EXPECT_TRUE(path.base().empty());
    EXPECT_FALSE(path.hasTail());
}

TEST(PathTest, MayBeEmpty) {
    const Path path;
    EXPECT_TRUE(path.empty());
    EXPECT_TRUE(path.root().empty());
    EXPECT_TRUE(path.begin() == path.end());
    EXPECT_TRUE(Path(static_cast<const char*>(nullptr)).empty());
}

TEST(PathTest, JoinsOnlyNonEmptySides) {
    EXPECT_EQ(Path("a") + Path("b.c"), Path("a.b.c"));
    EXPECT_EQ(Path() + Path("b"), Path("b"));
    EXPECT_EQ(Path("a") + Path(), Path("a"));
    Path path("a");
    path += Name("b");
    EXPECT_EQ(path, Path("a.b"));
    EXPECT_FALSE(path == Path("a.c"));
}

TEST(PathTest, IteratesOverItsParts) {
    std::vector<std::string> parts;
    for (const Name part : Path("a.b..c"))
        parts.push_back(part.str());
    EXPECT_EQ(parts, (std::vector<std::string>{"a", "b", "", "c"}));
}

TEST(PathTest, EndsAnIterationWithAnEmptyPartAfterATrailingSeparator) {
    size_t count = 0;
    for (const Name part : Path("a."))
        count += part.empty() ? 10U : 1U;
    EXPECT_EQ(count, 11U);
}

TEST(PathTest, ContainsWholePartsOnly) {
    const Path path("alpha.beta.gamma");
    EXPECT_TRUE(path.contains(Name("beta")));
    EXPECT_FALSE(path.contains(Name("bet")));
    EXPECT_TRUE(path.contains(Path("beta.gamma")));
    EXPECT_TRUE(path.contains(Path("alpha.beta")));
    EXPECT_FALSE(path.contains(Path("alpha.gamma")));
    EXPECT_FALSE(path.contains(Path("lpha.beta")));
    EXPECT_TRUE(path.contains(Path()));
}

TEST(PathTest, HashesItsTextAndPrints) {
    EXPECT_EQ(zel::HashFn<Path>()(Path("a.b")), zel::HashFn<const char*>()("a.b"));
    std::ostringstream stream;
    stream << Path("a.b");
    EXPECT_EQ(stream.str(), "a.b");
}
