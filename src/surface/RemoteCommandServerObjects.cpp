#include "data/AsciiFormat.h"
#include "surface/Completion.h"
#include "transport/Envelope.h"

#include <zel/ArrayParameter.h>
#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/Namespace.h>
#include <zel/Pointer.h>
#include <zel/ScalarParameter.h>
#include <zel/TreeGate.h>
#include <zelData/Buffer.h>
#include <zelData/Format.h>
#include <zelData/Transform.h>
#include <zelData/Value.h>
#include <zelIO/RemoteCommandServer.h>

#include <civetweb.h>
#include <json/value.h>
#include <json/writer.h>
#include <pystring/pystring.h>

#include <algorithm>
#include <iostream>
#include <mutex>
#include <vector>

// What the server tells of objects.

namespace zelIO {

using zel::Component;
using zel::Model;
using zel::Object;
using zel::Path;

namespace {

std::string styled(const Json::Value& json) {
    return Json::StyledWriter().write(json);
}

std::string pathOf(const Object* object) {
    return object == nullptr ? std::string() : std::string(object->fullPath());
}

/// The models of an object's inheritance chain, the one at the root first.
std::vector<const Model*> chainOf(const Object* object) {
    std::vector<const Model*> chain;
    for (const Model* model = object->getModel(); model != nullptr; model = model->getSource())
        chain.push_back(model);
    std::reverse(chain.begin(), chain.end());
    return chain;
}

std::string groupOf(const Object* object) {
    const std::vector<const Model*> chain = chainOf(object);
    if (chain.empty())
        return {};
    return (chain.size() <= 4 ? chain.back() : chain[3])->getPath().str();
}

bool sortByModel(const Object* a, const Object* b) {
    return groupOf(a) < groupOf(b);
}

void writeNodeDescription(const Object* object, Json::Value& json) {
    if (const auto* const pointer = dynamic_cast<const zel::Pointer*>(object)) {
        const Object* const target = pointer->getObject();
        json = target == nullptr
                   ? std::string("Unresolved")
                   : target->getPath().str() + " (" +
                         (target->getModel() == nullptr ? std::string()
                                                        : std::string(target->getModel()->getPath().str())) +
                         ")";
    } else if (const auto* const value = dynamic_cast<const zelData::Value*>(object)) {
        json = static_cast<const std::string&>(value->toString());
    }
}

void describeBuffer(const zelData::Buffer& buffer, Json::Value& json) {
    const zelData::Format* const format = buffer.getFormat();
    json["format"] = format == nullptr ? std::string() : std::string(format->fullName());
    json["numElements"] = Json::UInt64{buffer.getNumElements()};
    Json::Value& elements = json["elements"] = Json::Value(Json::arrayValue);
    const zelData::Format* const ascii = zelData::asciiFormat(format);
    if (ascii == nullptr)
        return;
    const zel::uint64 shown =
        std::min<zel::uint64>(buffer.getNumElements(), RemoteCommandServer::MaxShownElements);
    for (zel::uint64 i = 0; i < shown; ++i) {
        String text;
        zelData::transform(&text, ascii, buffer.getElement(i), format, 1);
        elements.append(std::string(String::format("[%u] ", static_cast<unsigned>(i)) + text));
    }
}

void describeComponent(const Component& component, Json::Value& json) {
    Json::Value& groups = json["objects"] = Json::Value(Json::objectValue);
    zel::Vector<Object*> children;
    component.getObjects(children);
    std::stable_sort(children.begin(), children.end(), sortByModel);
    for (const Object* child : children)
        writeNodeDescription(child, groups[groupOf(child)][std::string(child->fullName())]);
}

void describe(const Object* object, Json::Value& json) {
    if (const auto* const value = dynamic_cast<const zelData::Value*>(object)) {
        json["value"] = static_cast<const std::string&>(value->toString());
        json["format"] =
            value->getFormat() == nullptr ? std::string() : std::string(value->getFormat()->fullName());
        json["binding"] = pathOf(value->getBinding());
    } else if (const auto* const buffer = dynamic_cast<const zelData::Buffer*>(object)) {
        describeBuffer(*buffer, json);
    } else if (const auto* const scalar = dynamic_cast<const zel::ScalarParameter*>(object)) {
        if (const auto* const bound = dynamic_cast<const zelData::Value*>(scalar->getBinding()))
            json["value"] = static_cast<const std::string&>(bound->toString());
        json["binding"] = pathOf(scalar->getBinding());
    } else if (const auto* const array = dynamic_cast<const zel::ArrayParameter*>(object)) {
        json["binding"] = pathOf(array->getBinding());
    } else if (const auto* const component = dynamic_cast<const Component*>(object)) {
        describeComponent(*component, json);
    }
}

void describeObject(Object* root, const Path& path, Json::Value& json) {
    const zel::TreeLook look;
    const Object* const object = Object::getResource(root, path, nullptr);
    json["success"] = object != nullptr;
    if (object == nullptr)
        return;
    const Model* const model = object->getModel();
    json["name"] = object->getName().str();
    json["path"] = pathOf(object);
    json["implementation"] = object->getImplementationName().str();
    json["model"] = model == nullptr ? std::string() : std::string(model->fullPath());
    json["modelPath"] = model == nullptr ? std::string() : std::string(model->fullInheritancePath());
    describe(object, json);
}

} // namespace

bool RemoteCommandServer::handleCommand(mg_connection* connection, const QueryArgumentTable& arguments) {
    const String& text = arguments["text"];
    std::cout << "command: " << zelNet::printable(text) << std::endl;
    Json::Value response;
    const zel::ref_ptr<Object> root = getSystemRoot();
    describeObject(root.get(), Path(text), response);
    writeResponse(response, connection);
    std::cout << "commandString: " << zelNet::printable(text) << ", resultString: " << styled(response)
              << std::endl;
    return true;
}

bool RemoteCommandServer::handleJournalNavigationTree(mg_connection* connection) {
    Json::Value response(Json::objectValue);
    if (const zel::ref_ptr<Object> root = getSystemRoot()) {
        const zel::TreeLook look;
        root->buildNavigationTree(response);
    }
    writeResponse(response, connection);
    return true;
}

// Completion

bool RemoteCommandServer::handleAutoComplete(mg_connection* connection, const QueryArgumentTable& arguments) {
    const String& text = arguments["text"];
    const zel::ref_ptr<Object> root = getSystemRoot();
    Completion completion = [&] {
        const zel::TreeLook look;
        return completePath(text, dynamic_cast<Component*>(root.get()));
    }();
    if (!completion.isNode && completion.list.empty()) {
        log("%s", "Did not find matching system node, trying model instead...");
        const zel::TreeLook look;
        const std::lock_guard lock(zel::getTypeSystemMutex());
        completion = completePath(text, Model::root());
    }
    std::cout << "query: " << zelNet::printable(text) << std::endl;
    std::cout << "match: " << zelNet::printable(completion.matched.str())
              << ", list: " << zelNet::printable(pystring::join(", ", completion.list)) << std::endl;
    const Json::Value response = completion.toJson(text);
    writeResponse(response, connection);
    std::cout << "autoComplete: " << styled(response) << std::endl;
    return true;
}

// Scripts

bool RemoteCommandServer::handleScript(mg_connection* connection, const QueryArgumentTable& arguments) {
    for (const zel::ref_ptr<ScriptListener>& listener : getListeners()) {
        String printed;
        String error;
        Json::Value response;
        response["success"] = listener->run(arguments["text"], printed, error);
        response["printStr"] = static_cast<const std::string&>(printed);
        response["errorStr"] = static_cast<const std::string&>(error);
        writeResponse(response, connection);
    }
    return true;
}

bool RemoteCommandServer::handleScriptAutoComplete(mg_connection* connection,
                                                   const QueryArgumentTable& arguments) {
    bool succeeded = false;
    std::vector<std::string> errors;
    zel::Vector<String> list;
    for (const zel::ref_ptr<ScriptListener>& listener : getListeners()) {
        String error;
        succeeded = listener->autoComplete(arguments["text"], list, error) || succeeded;
        if (!error.empty())
            errors.push_back(error);
    }
    Json::Value response;
    response["success"] = succeeded;
    response["errorStr"] = pystring::join("\n", errors);
    Json::Value& found = response["list"] = Json::Value(Json::arrayValue);
    for (const String& name : list)
        found.append(static_cast<const std::string&>(name));
    writeResponse(response, connection);
    return true;
}

} // namespace zelIO
