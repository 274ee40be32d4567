#include <kel/Networking/DeserializerType.hpp>
#include <kel/Networking/JSONDeserializer.hpp>
#include <kel/Networking/TestDataLoader.hpp>

#include <gtest/gtest.h>

#include <fstream>
#include <memory>

#include "PromiseTestSupport.hpp"
#include "ScopedEnvironment.hpp"

namespace {

using kel::test::await;

struct Quote {
    std::string text;
    int year = 0;
    friend bool operator==(const Quote&, const Quote&) = default;
};
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Quote, text, year)

struct Fixture {
    std::string path;
    std::string filePath() const { return path; }
};

TEST(TestDataLoader, FindsLoadsAndRejectsFixtures) {
    kel::test::ScratchDirectory content;
    std::filesystem::create_directories(content / "quotes");
    std::ofstream(content / "quotes/sample.json") << R"({"text":"hi","year":1999})";
    std::ofstream(content / "quotes/broken.json") << R"({"text":)";

    kel::TestDataLoader<Fixture> sample(Fixture{"quotes/sample"}, content.path());
    EXPECT_EQ(sample.filePath(), content.path().string() + "/quotes/sample.json");
    EXPECT_EQ(await(sample.loadDataWithType<Quote>()).value(), (Quote{"hi", 1999}));

    auto broken = await(kel::TestDataLoader<Fixture>(Fixture{"quotes/broken"}, content.path())
                            .loadDataWithType<Quote>());
    auto error = kel::errorAs<kel::TestDataError>(broken.error());
    ASSERT_TRUE(error);
    EXPECT_EQ(error->value(), kel::TestDataError::Case::invalidTestData);
    EXPECT_TRUE(kel::errorIs<nlohmann::json::parse_error>(error->error()));

    try {
        kel::TestDataLoader<Fixture>(Fixture{"quotes/none"}, content.path());
        ADD_FAILURE() << "a missing fixture throws";
    } catch (const kel::TestDataError& missing) {
        EXPECT_EQ(missing, kel::TestDataError::missingTestData);
    }
    // A fixture that disappears (or turns unreadable) after construction rejects the load.
    std::filesystem::remove(content / "quotes/sample.json");
    EXPECT_EQ(kel::errorAs<kel::TestDataError>(await(sample.loadDataWithType<Quote>()).error()),
              kel::TestDataError::missingTestData);
}

TEST(TestDataLoader, WithoutAContentDirectoryLooksInTheDocumentsFolder) {
    kel::test::ScratchDirectory home;
    std::filesystem::create_directories(home / "Docs/TestContent");
    std::filesystem::create_directories(home / "Documents/TestContent");
    std::ofstream(home / "Docs/TestContent/a.json") << "[1]";
    std::ofstream(home / "Documents/TestContent/b.json") << "[2]";
    kel::test::ScopedEnvironment environment;
    environment.set("HOME", home.path().string()).set("XDG_DOCUMENTS_DIR", "$HOME/Docs");

    EXPECT_EQ(kel::TestDataLoader<Fixture>(Fixture{"a"}).filePath(),
              (home / "Docs/TestContent").string() + "/a.json");
    environment.set("XDG_DOCUMENTS_DIR", std::nullopt);
    kel::TestDataLoader<Fixture> documents(Fixture{"b"});
    EXPECT_EQ(documents.filePath(), (home / "Documents/TestContent").string() + "/b.json");
    EXPECT_EQ(await(documents.loadDataWithType<std::vector<int>>()).value(), std::vector<int>{2});
}

}  // namespace
