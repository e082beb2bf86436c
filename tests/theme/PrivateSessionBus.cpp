// The tray tests build the shared private session bus from here.
#include "../support/PrivateSessionBus.cpp"
