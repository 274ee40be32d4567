// The schedulers part of the demo: task schedulers, asynchronous operations, the synchronizer
// and the async object applicator, in a small simulated application.
#pragma once

void runSchedulersDemo();
