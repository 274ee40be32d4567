// The dispatch part of the demo application: queues, groups, timers and operation queues.
#pragma once

// Prints what the dispatch runtime does while a simulated application uses it. Runs on the
// main thread and pumps the run loop itself.
void runDispatchDemo();
