// The collections part of the demo application: a simulated application that caches profiles,
// keeps an ordered list of conversations, replays server-side changes onto it, and walks a
// navigation stack and a recently-used list.
#pragma once

void runCollectionsDemo();
