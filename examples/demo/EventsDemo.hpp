// The events part of the demo application: remote settings that load when the application
// becomes active, a profile screen that follows the signed-in user, a download that reports its
// progress, and a badge attached to the screen object.
#pragma once

void runEventsDemo();
