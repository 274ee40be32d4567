#include "kel/Lifecycle/StartupTaskManager.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "LifecycleTestSupport.hpp"
#include "kel/Platform/Error.hpp"

namespace {

using kel::Promise;
using kel::StartupTaskGroup;
using kel::StartupTaskManager;
using kel::StartupTaskType;
using kel::testing::makeTestError;
using kel::testing::Pending;

// A task whose promise the test settles; records the order in which tasks were run.
class ManualTask : public StartupTaskType {
  public:
    ManualTask(std::string name, std::vector<std::string>& runs,
               std::optional<StartupTaskGroup> group = std::nullopt)
        : name_(std::move(name)), runs_(runs), group_(std::move(group)) {}

    StartupTaskGroup group() const override { return group_ ? *group_ : StartupTaskType::group(); }
    Promise<void> run() override {
        runs_.push_back(name_);
        return pending.promise;
    }

    Pending<void> pending;

  private:
    std::string name_;
    std::vector<std::string>& runs_;
    std::optional<StartupTaskGroup> group_;
};

class DefaultGroupTask : public StartupTaskType {
  public:
    Promise<void> run() override { return Promise<void>::fulfilled(); }
};

struct StartupFixture : ::testing::Test {
    // Registers a task and keeps a pointer to it for settling; the manager owns it.
    ManualTask& add(const std::string& name, std::optional<StartupTaskGroup> group = std::nullopt) {
        auto task = std::make_unique<ManualTask>(name, runs, std::move(group));
        ManualTask& raw = *task;
        manager.onStartup(std::move(task));
        return raw;
    }

    std::vector<std::string> runs;
    StartupTaskManager manager;
    const StartupTaskGroup network{"network"};
    const StartupTaskGroup storage{"storage"};
};

bool isPending(const Promise<void>& promise) {
    return !promise.resolution().has_value();
}

TEST(StartupTaskGroups, EqualAndHashedByIdentifier) {
    EXPECT_EQ(StartupTaskGroup::default_().identifier(), "default");
    EXPECT_EQ(StartupTaskGroup::all(), StartupTaskGroup("all"));
    EXPECT_EQ(&StartupTaskGroup::all(), &StartupTaskGroup::all());
    std::unordered_set<StartupTaskGroup> groups{StartupTaskGroup("a"), StartupTaskGroup("a"),
                                                StartupTaskGroup::default_()};
    EXPECT_EQ(groups.size(), 2u);
    EXPECT_EQ(DefaultGroupTask().group(), StartupTaskGroup::default_());
}

TEST_F(StartupFixture, GroupsSettleWithTheirTasksAndAllWithEveryGroup) {
    ManualTask& fetch = add("fetch", network);
    ManualTask& open = add("open", storage);
    ManualTask& login = add("login", network);
    ManualTask& misc = add("misc");
    const auto networkDone = manager.promise(network);
    EXPECT_EQ(manager.promise(network), networkDone);

    manager.startAllTasks();
    EXPECT_EQ(manager.state(), StartupTaskManager::State::started);
    // Every task runs before the start returns, in registration order within its group.
    EXPECT_EQ(runs.size(), 4u);
    EXPECT_LT(std::ranges::find(runs, "fetch"), std::ranges::find(runs, "login"));
    const auto all = manager.promise(StartupTaskGroup::all());
    const auto defaultDone = manager.promise(StartupTaskGroup::default_());

    (*misc.pending.fulfill)();
    EXPECT_TRUE(defaultDone.resolution()->isResolved());
    (*login.pending.fulfill)();
    EXPECT_TRUE(isPending(networkDone));
    (*fetch.pending.fulfill)();
    EXPECT_TRUE(networkDone.resolution()->isResolved());
    EXPECT_TRUE(isPending(all));
    (*open.pending.fulfill)();
    EXPECT_TRUE(all.resolution()->isResolved());
}

// The first failure in registration order decides, whenever it comes; the other tasks of the
// group still run, and `all` rejects with the same error.
TEST_F(StartupFixture, AGroupRejectsWithItsFirstTaskErrorInRegistrationOrder) {
    ManualTask& first = add("first", network);
    ManualTask& second = add("second", network);
    ManualTask& other = add("other", storage);
    manager.startAllTasks();
    const auto networkDone = manager.promise(network);
    const auto all = manager.promise(StartupTaskGroup::all());
    EXPECT_EQ(runs.size(), 3u);

    const auto firstError = makeTestError("first failed");
    (*second.pending.reject)(makeTestError("second failed"));
    EXPECT_TRUE(isPending(networkDone));
    (*first.pending.reject)(firstError);
    ASSERT_TRUE(networkDone.resolution()->isRejected());
    EXPECT_EQ(networkDone.resolution()->error(), firstError);
    (*other.pending.fulfill)();
    ASSERT_TRUE(all.resolution()->isRejected());
    EXPECT_EQ(all.resolution()->error(), firstError);
}

// Promises asked for before the start without tasks fulfil during the start, `all` included,
// even while the tasks are still running; asked for after the start, `all` waits for the tasks
// and a group never heard of never settles.
TEST_F(StartupFixture, EarlyRequestsWithoutTasksFulfilAtTheStart) {
    ManualTask& task = add("task");
    const auto idle = manager.promise(storage);
    const auto allEarly = manager.promise(StartupTaskGroup::all());
    manager.startAllTasks();
    EXPECT_TRUE(idle.resolution()->isResolved());
    EXPECT_TRUE(allEarly.resolution()->isResolved());

    const auto allLate = manager.promise(StartupTaskGroup::all());
    EXPECT_EQ(allLate, allEarly);  // the stored entry is kept; its first settlement stands
    const auto unknown = manager.promise(network);
    (*task.pending.fulfill)();
    EXPECT_TRUE(isPending(unknown));
}

TEST_F(StartupFixture, AllAskedAfterTheStartWaitsForTheTasks) {
    ManualTask& task = add("task");
    manager.startAllTasks();
    const auto all = manager.promise(StartupTaskGroup::all());
    EXPECT_TRUE(isPending(all));
    (*task.pending.fulfill)();
    EXPECT_TRUE(all.resolution()->isResolved());

    StartupTaskManager empty;
    empty.startAllTasks();
    EXPECT_TRUE(empty.promise(StartupTaskGroup::all()).resolution()->isResolved());
}

TEST(StartupTaskManagerDeathTest, RegisteringOrStartingAfterTheStartStopsTheProcess) {
    EXPECT_DEATH(
        {
            StartupTaskManager manager;
            manager.startAllTasks();
            manager.onStartup(std::make_unique<DefaultGroupTask>());
        },
        "Precondition failed");
    EXPECT_DEATH(
        {
            StartupTaskManager manager;
            manager.startAllTasks();
            manager.startAllTasks();
        },
        "Precondition failed");
}

}  // namespace
