#include "kel/Lifecycle/StartupTaskManager.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "PromiseTestSupport.hpp"

namespace {

using kel::Promise;
using kel::StartupTaskGroup;
using kel::StartupTaskManager;
using kel::test::makeTestError;

// A task whose promise the test settles; records its name when run. Without a group it keeps
// the interface's default one.
class Task : public kel::StartupTaskType {
  public:
    Task(std::vector<std::string>& runs, std::string name, std::optional<StartupTaskGroup> group)
        : runs_(runs), name_(std::move(name)), group_(std::move(group)) {}

    StartupTaskGroup group() const override { return group_ ? *group_ : StartupTaskType::group(); }
    Promise<void> run() override {
        runs_.push_back(name_);
        return pending.promise;
    }

    kel::test::Pending<void> pending;

  private:
    std::vector<std::string>& runs_;
    std::string name_;
    std::optional<StartupTaskGroup> group_;
};

struct StartupTasks : ::testing::Test {
    // Registers a task; the manager owns it, the test settles it through the reference.
    Task& add(std::string name, std::optional<StartupTaskGroup> group = std::nullopt) {
        auto task = std::make_unique<Task>(runs, std::move(name), std::move(group));
        Task& raw = *task;
        manager.onStartup(std::move(task));
        return raw;
    }
    static bool pending(const Promise<void>& promise) { return !promise.resolution(); }

    std::vector<std::string> runs;
    StartupTaskManager manager;
    const StartupTaskGroup network{"network"};
};

TEST_F(StartupTasks, GroupsSettleWithTheirTasksAndAllWithEveryGroup) {
    Task& fetch = add("fetch", network);
    Task& misc = add("misc");
    Task& login = add("login", network);
    const auto networkDone = manager.promise(network);
    EXPECT_EQ(manager.promise(network), networkDone);
    manager.startAllTasks();
    EXPECT_EQ(runs.size(), 3u);  // every task started before the start returns
    EXPECT_LT(std::ranges::find(runs, "fetch"), std::ranges::find(runs, "login"));
    const auto all = manager.promise(StartupTaskGroup::all());

    (*login.pending.fulfill)();
    (*misc.pending.fulfill)();
    EXPECT_TRUE(manager.promise(StartupTaskGroup::default_()).resolution()->isResolved());
    EXPECT_TRUE(pending(networkDone));
    EXPECT_TRUE(pending(all)) << "`all` asked for after the start waits for every task";
    (*fetch.pending.fulfill)();
    EXPECT_TRUE(networkDone.resolution()->isResolved());
    EXPECT_TRUE(all.resolution()->isResolved());
}

// The first failure in registration order decides, whenever it comes; the group's other tasks
// still run, and `all` rejects with the same error.
TEST_F(StartupTasks, AGroupRejectsWithItsFirstTaskErrorInRegistrationOrder) {
    Task& first = add("first", network);
    Task& second = add("second", network);
    manager.startAllTasks();
    EXPECT_EQ(runs.size(), 2u);
    const auto firstError = makeTestError("first failed");
    (*second.pending.reject)(makeTestError("second failed"));
    EXPECT_TRUE(pending(manager.promise(network)));
    (*first.pending.reject)(firstError);
    EXPECT_EQ(manager.promise(network).resolution()->error(), firstError);
    EXPECT_EQ(manager.promise(StartupTaskGroup::all()).resolution()->error(), firstError);
}

// Asked for before the start, a group without tasks fulfils during the start, and so does `all`
// while the tasks still run; a group never heard of before the start never settles.
TEST_F(StartupTasks, EarlyRequestsWithoutTasksFulfilDuringTheStart) {
    Task& task = add("task");
    const auto idle = manager.promise(network);
    const auto allEarly = manager.promise(StartupTaskGroup::all());
    manager.startAllTasks();
    EXPECT_TRUE(idle.resolution()->isResolved());
    EXPECT_TRUE(allEarly.resolution()->isResolved());
    (*task.pending.fulfill)();
    EXPECT_TRUE(pending(manager.promise(StartupTaskGroup("unknown"))));
}

TEST(StartupTaskManagerDeathTest, RegisteringOrStartingAfterTheStartStopsTheProcess) {
    StartupTaskManager manager;
    manager.startAllTasks();
    EXPECT_TRUE(manager.promise(StartupTaskGroup::all()).resolution()->isResolved());
    EXPECT_DEATH(manager.startAllTasks(), "Precondition failed");
    std::vector<std::string> runs;
    EXPECT_DEATH(manager.onStartup(std::make_unique<Task>(runs, "t", std::nullopt)),
                 "Precondition failed");
}

}  // namespace
