// The promises part of the demo application.
#pragma once

// Prints, step by step, a simulated profile screen that loads its data with promises.
// Runs on the main thread and pumps the run loop while it waits.
void runPromisesDemo();
