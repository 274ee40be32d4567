// kel::EventTriggerBehavior — how an EventManager trigger reacts to the events fired.
//
// An option set over a signed 64-bit raw value (any raw value is accepted, unknown bits
// included):
//   - onlyOnce (1): the trigger is discarded after its block has run once;
//   - eager (2): on registration, a trigger already satisfied by the events fired so far runs
//     its block at once;
//   - any (4): satisfied when at least one of its events has been fired;
//   - all (8): satisfied when every one of its events has been fired.
// Only `any` is tested: a trigger without it needs every one of its events, so `all` names the
// default and a behaviour with both `any` and `all` behaves as `any`.
//
// Thread rules: a value type; no shared state.
#pragma once

#include <cstdint>

#include "kel/Extensions/OptionSet.hpp"

namespace kel {

struct EventTriggerBehavior : OptionSet<EventTriggerBehavior, std::int64_t> {
    using OptionSet::OptionSet;
    static const EventTriggerBehavior onlyOnce;
    static const EventTriggerBehavior eager;
    static const EventTriggerBehavior any;
    static const EventTriggerBehavior all;
};

inline constexpr EventTriggerBehavior EventTriggerBehavior::onlyOnce{1};
inline constexpr EventTriggerBehavior EventTriggerBehavior::eager{2};
inline constexpr EventTriggerBehavior EventTriggerBehavior::any{4};
inline constexpr EventTriggerBehavior EventTriggerBehavior::all{8};

}  // namespace kel
