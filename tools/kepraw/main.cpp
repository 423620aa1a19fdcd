// kepraw: command-line tool and demo of libkep_frame_registration.

#include <cstring>
#include <iostream>
#include <new>
#include <string>
#include <vector>

#include "cli.h"
#include "commands.h"

int main(int argc, char** argv) {
    using namespace kepraw;
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty()) {
        std::cerr << "usage: kepraw COMMAND [ARGS...]   commands: demo, night, hdr, info (kepraw --help)\n";
        return kExitBadInput;
    }
    const std::string command = args.front();
    if (command == "-h" || command == "--help" || command == "help") {
        std::cout << kMainHelp;
        return kExitOk;
    }
    if (command == "--version") {
        std::cout << "kepraw 0.1.0\n";
        return kExitOk;
    }
    int (*run)(const std::vector<std::string>&) = nullptr;
    if (command == "night") run = runNight;
    if (command == "hdr") run = runHdr;
    if (command == "info") run = runInfo;
    if (command == "demo") run = runDemo;
    if (!run) {
        std::cerr << "kepraw: '" << oneLine(command)
                  << "': unknown command (demo, night, hdr, info; see kepraw --help)\n";
        return kExitBadInput;
    }
    try {
        return run(std::vector<std::string>(args.begin() + 1, args.end()));
    } catch (const InputError& e) {
        std::cout.flush();
        std::cerr << "kepraw " << command << ": " << oneLine(e.what()) << "\n";
        return kExitBadInput;
    } catch (const std::bad_alloc&) {
        std::cout.flush();
        std::cerr << "kepraw " << command << ": out of memory\n";
        return kExitFailure;
    } catch (const std::exception& e) {
        std::cout.flush();
        std::cerr << "kepraw " << command << ": " << oneLine(e.what()) << "\n";
        return kExitFailure;
    }
}
