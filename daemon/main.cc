#include "daemon/startup.h"

// klvlockd <timeout> <logdir> starts the lock daemon; klvlockd <port> prints
// the status report of the daemon whose status port that is.
int main(int argc, char** argv) { return klv::RunKlvlockd(argc, argv); }
