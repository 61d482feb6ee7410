// The smallest program: starts the library, shows what is in its object tree, and stops.
#include <zel/Component.h>
#include <zel/Log.h>
#include <zelCore/Version.h>
#include <zelCore/zelCore.h>

#include <exception>
#include <iostream>

int main() {
    zelCore::init();
    int result = 0;
    try {
        // The root comes from Components/zel/Root.zelComponent, which lies with the library.
        zel::Component* root = zel::root();
        root->addObject(new zel::Component("greeting", zel::Component::ClassModel()));
        std::cout << zelCore::zelGetLibraryName() << ' ' << zelCore::zelGetVersion(true) << '\n';
        root->printSubtree();
    } catch (const std::exception& error) {
        std::cerr << error.what();
        result = 1;
    }
    zelCore::shutdown();
    return result;
}
