// The dependency-injection part of the demo: the application wires its services through a
// ProxyContainer and resolves them through a ProxyResolver.
#pragma once

void runContainerDemo();
