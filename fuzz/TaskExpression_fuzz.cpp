// Function expressions: UnresolvedTask::splitParameters and parse, and the value that follows the function.
// Any text is taken, or refused with a std::runtime_error.
#include "Support.h"

#include <zel/Component.h>
#include <zel/Notify.h>
#include <zel/UnresolvedParameter.h>
#include <zel/UnresolvedTask.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();
    const zel::String text(std::string(reinterpret_cast<const char*>(data), size));
    try {
        zel::Vector<zel::String> parts;
        zel::UnresolvedTask::splitParameters(text, parts);
        if (parts.empty())
            std::abort();
    } catch (const std::runtime_error&) {
        // Brackets that do not match.
    }
    // Words that are read by whatever type is named; Bool takes but two of them.
    if (text.find("Bool") != std::string::npos)
        return 0;
    const zel::ref_ptr<zel::Component> top(new zel::Component("top"));
    top->addObject(new zelData::ValueT<double>("a", 1.5));
    top->addObject(new zelData::ValueT<zel::int64>("b", 2));
    try {
        const zel::ref_ptr<zel::UnresolvedTask> task(zel::UnresolvedTask::parse(text));
        for (zel::size_t i = 0; i < task->getProxyParameters().size(); ++i)
            if (task->getProxyParameters()[i]->getName() != zel::Name("arg" + std::to_string(i)))
                std::abort();
        task->setContext(top.get());
        task->rebind();
        task->setContext(nullptr);
    } catch (const std::runtime_error&) {
        // No call.
    }
    const zel::ref_ptr<zelData::Value> value(new zelData::Value("v", zelData::getFormat("Real")));
    top->addObject(value.get());
    try {
        value->setExpression(text);
    } catch (const std::runtime_error&) {
        // As above.
    }
    value->unbind(true);
    return 0;
}
