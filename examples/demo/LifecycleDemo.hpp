// The application life-cycle part of the demo application.
#pragma once

// Plays an application's launch and life: start-up tasks in groups, state monitors, a routed
// remote notification and a background fetch with a time-out. Runs on the main thread and pumps
// the run loop while it waits.
void runLifecycleDemo();
