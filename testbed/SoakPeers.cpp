// The peers of a soak, until they are killed.
#include "testbed/Soak.h"

int main() { Testbed::servePeers(); }
