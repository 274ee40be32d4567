// The foundation part of the demo: locks, option sets and the small extensions.
#pragma once

void runFoundationDemo();
