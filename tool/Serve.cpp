#include "Command.h"
#include "Control.h"
#include "Model.h"
#include "Signals.h"

#include <zel/Component.h>
#include <zel/Exception.h>
#include <zel/Notify.h>
#include <zelIO/FileSystem.h>

#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>

// zel serve.

namespace tool {

int serveJournals(const Arguments& arguments) {
    Control::verifyOptions(arguments, true);
    addFolders(arguments);
    for (const std::string& file : arguments.positional())
        if (!zelIO::FileSystem::exists(file))
            throw std::runtime_error("there is no file '" + file + "'");
    endOnSignals();
    Control control(arguments);
    for (const std::string& file : arguments.positional())
        control.addJournal(file, true);
    while (endSignal() == 0)
        control.serviceAndRest();
    std::cout << "Ended by a signal.\n";
    return static_cast<int>(Done);
}

} // namespace tool
