// The platform-utilities part of the demo: relative date phrases, a debug cache wipe, the
// exception bridge and the capability query.
#pragma once

void runUtilitiesDemo();
