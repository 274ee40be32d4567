// The networking part of the demo: a JSON feed fetched from a loopback server of the demo's own
// through NetworkOperation, with an authorisation processor, the logged timing line, and one
// injected stall that the operation survives by retrying.
#pragma once

void runNetworkingDemo();
