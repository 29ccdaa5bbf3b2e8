// The program where there is no Windows: the driver is one that a live volume's host runs.
#include "agent/tarnctl/run.h"
#include "agent/tarnctl/socket_transport.h"

#include <iostream>

int main(int count, char** arguments)
{
    return tarnctl::RunOverSocket({arguments + 1, arguments + count}, tarnctl::ConnectToSocket, std::cout, std::cerr);
}
