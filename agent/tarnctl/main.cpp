// The program where there is no Windows: recover and conceal work, no driver can be reached.
#include "agent/tarnctl/failure.h"
#include "agent/tarnctl/run.h"

#include <iostream>

int main(int count, char** arguments)
{
    const tarnctl::Connect connect = []() -> std::unique_ptr<tarnctl::Transport> {
        throw tarnctl::Failure(tarnctl::ExitCode::NotReachable, "driver not reachable: this is not Windows");
    };
    return tarnctl::Run({arguments + 1, arguments + count}, connect, std::cout, std::cerr);
}
