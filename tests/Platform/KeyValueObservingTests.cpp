#include "kel/Platform/KeyValueObserving.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using kel::KeyValueObservation;

// An object with one stored key ("state") and a computed one ("isDone") that depends on it.
class Job : public kel::KeyValueObservable {
  public:
    void setState(int state) {
        willChangeValueForKey("state");
        state_ = state;
        didChangeValueForKey("state");
    }
    int state() const { return state_; }

    std::vector<std::string> keyPathsForValuesAffectingValueForKey(
        std::string_view key) const override {
        if (key == "isDone") {
            return {"state"};
        }
        return {};
    }

  private:
    int state_ = 0;
};

TEST(KeyValueObserving, DependentKeyAndPriorObserversHearTheChange) {
    Job job;
    std::vector<std::string> heard;
    KeyValueObservation done =
        job.observe("isDone", [&](std::string_view key) { heard.emplace_back(key); });
    KeyValueObservation state = job.observe("state", [&](std::string_view key) {
        heard.push_back(std::string(key) + "=" + std::to_string(job.state()));
    });
    KeyValueObservation other =
        job.observe("unrelated", [&](std::string_view key) { heard.emplace_back(key); });
    // A prior observer hears both sides of the change.
    std::vector<int> seen;
    KeyValueObservation prior = job.observe(
        "state", [&](std::string_view) { seen.push_back(job.state()); }, true);
    job.setState(2);
    EXPECT_EQ(heard, (std::vector<std::string>{"isDone", "state=2"}));
    EXPECT_EQ(seen, (std::vector<int>{0, 2}));
}

TEST(KeyValueObserving, InvalidationEndsTheObservationFromInsideTheCallbackOrAfterTheObject) {
    Job job;
    int calls = 0;
    KeyValueObservation observation;
    observation = job.observe("state", [&](std::string_view) {
        ++calls;
        observation.invalidate();
    });
    job.setState(1);
    job.setState(2);
    EXPECT_EQ(calls, 1);

    KeyValueObservation scoped = job.observe("state", [&](std::string_view) { ++calls; });
    { KeyValueObservation moved = std::move(scoped); }  // destroying the token ends it
    job.setState(3);
    EXPECT_EQ(calls, 1);

    {
        Job gone;
        observation = gone.observe("state", [](std::string_view) {});
    }
    observation.invalidate();  // a token may outlive the object: this must not touch it
}

}  // namespace
