#include "StreamText.h"
#include "data/FormatLookup.h"
#include "engine/ParameterEntity.h"
#include "engine/PluginLibrary.h"

#include <zel/Model.h>
#include <zel/Pointer.h>
#include <zel/Stream.h>
#include <zel/UnresolvedTask.h>
#include <zel/VerifyThrow.h>
#include <zelData/BinaryData.h>
#include <zelData/Buffer.h>
#include <zelData/EntityInstance.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityPtr.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/FunctionValue.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <json/value.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <system_error>

namespace zel {

namespace {

/// Refuses what has no format that bytes or texts could stand for.
bool isUsable(const zelData::Format* format) {
    return format != nullptr && format != zelData::Format::Auto() && format != zelData::Format::Void() &&
           format->getSize() != 0;
}

/// The bytes of so many elements in the payload, once all sizes have been looked at.
const uint8* bytesOf(const Stream::BinaryMeta& binaryMeta,
                     const zelData::Format* format,
                     const zelData::BinaryData* payload) {
    zelVerifyThrowN(format->getSwapFunction() != nullptr,
                    "Elements of format '%s' can not be sent as bytes",
                    format->fullName().c_str());
    const uint64 payloadSize = payload == nullptr ? 0 : payload->getSize();
    zelVerifyThrow(binaryMeta.offset <= payloadSize);
    zelVerifyThrow(binaryMeta.numBytes <= payloadSize - binaryMeta.offset);
    if (binaryMeta.numBytes == 0)
        return nullptr;
    const uint8* const bytes = payload->getData() + binaryMeta.offset;
    // Other bytes are no bool at all.
    if (format->getType() != nullptr && format->getType()->getName().str() == "Bool")
        zelVerifyThrowN(std::all_of(bytes, bytes + binaryMeta.numBytes, [](uint8 byte) { return byte <= 1; }),
                        "A Bool is a byte 0 or 1");
    return bytes;
}

/// Ends the context of a value that is in no component: the context may go first.
class ContextScope {
public:
    ContextScope(zelData::Value& value, Object* context) : m_value(value) { value.setContext(context); }
    ContextScope(const ContextScope&) = delete;
    ContextScope& operator=(const ContextScope&) = delete;
    ~ContextScope() { m_value.setContext(nullptr); }

private:
    zelData::Value& m_value;
};

void setExpression(zelData::Value& value, Object* context, const String& expression) {
    verifyExpression(expression, value.getFormat());
    const SearchPathsOnly scope;
    const ContextScope place(value, context);
    value.setExpression(expression);
    zelVerifyThrowN(value.getBindPath().empty() || value.getBinding() != nullptr,
                    "There is no value '%s'",
                    shortened(value.getBindPath().str()).c_str());
    // One that waits for its implementation would look for it later, and elsewhere.
    const auto* const function = dynamic_cast<const zelData::FunctionValue*>(value.getBinding());
    zelVerifyThrowN(function == nullptr || function->getTask() != nullptr,
                    "The function '%s' can not be called",
                    shortened(expression).c_str());
}

/// Whether the format is that of references to entities of the model, by handle or by place.
bool isReference(const zelData::Format* format,
                 const zelData::Format* handleFormat,
                 const zelData::EntityModel* model) {
    for (; model != nullptr; model = model->getBaseEntity())
        if (isHandle(format, handleFormat, model->getName()))
            return true;
    return format == handleFormat;
}

void setEntity(zelData::Value& value, Object* context, const String& reference) {
    const auto pos = reference.rfind(':');
    zelVerifyThrow(pos != std::string::npos);
    const String path = reference.substr(0, pos);
    const String number = reference.substr(pos + 1);
    auto* const storage = dynamic_cast<zelData::EntityStorage*>(
        Object::getResource(context, verifiedPath(path), zelData::EntityStorage::ClassModel()));
    zelVerifyThrowN(storage,
                    "There is no storage '%s' for the entity '%s'",
                    shortened(path).c_str(),
                    shortened(number).c_str());
    uint32 index = 0;
    const char* const end = number.c_str() + number.size();
    const auto [behind, error] = std::from_chars(number.c_str(), end, index);
    zelVerifyThrowN(!number.empty() && error == std::errc() && behind == end && index < storage->size(),
                    "The storage '%s' has no entity '%s'",
                    shortened(path).c_str(),
                    shortened(number).c_str());
    const zelData::EntityPtr handle = storage->getInstance(index);
    const zelData::EntityInstance place(storage->getData(), index);
    if (isReference(value.getFormat(), zelData::getFormat("EntityPtr"), storage->getEntityModel()))
        value.set(static_cast<const void*>(&handle));
    else if (isReference(value.getFormat(), zelData::getFormat("EntityInstance"), storage->getEntityModel()))
        value.set(static_cast<const void*>(&place));
    else
        zelVerifyThrowN(false,
                        "A value of format '%s' can not refer to the entity '%s' of the storage '%s'",
                        value.getFormat()->fullName().c_str(),
                        shortened(number).c_str(),
                        shortened(path).c_str());
}

} // namespace

const zelData::Format* Stream::parseFormat(const Json::Value& eValue) {
    zelVerifyThrowAs(hasMember(eValue, "type"), "eValue.hasMember(\"type\")");
    const Json::Value& eType = eValue["type"];
    zelVerifyThrow(eType.isString());
    const String typeName = eType.asString();
    // A text with a format in it is no name of a type.
    const auto bracket = typeName.rfind('>');
    const bool isType = typeName.find(':', bracket == std::string::npos ? 0 : bracket) == std::string::npos;
    const zelData::Format* const usual = isType ? zelData::findFormat(typeName) : nullptr;
    zelVerifyThrowN(
        usual != nullptr && usual->getType() != nullptr, "Unknown type '%s'", shortened(typeName).c_str());
    const zelData::Format* format = usual;
    if (eValue.isMember("format")) {
        const Json::Value& eFormat = eValue["format"];
        zelVerifyThrow(eFormat.isString());
        format = usual->getType()->getFormat(Name(eFormat.asString()));
        zelVerifyThrowN(format,
                        "Unknown format '%s' of type '%s'",
                        shortened(eFormat.asString()).c_str(),
                        shortened(typeName).c_str());
    }
    zelVerifyThrowN(isUsable(format), "The type '%s' has no elements", shortened(typeName).c_str());
    return format;
}

Name Stream::parseName(const Json::Value& eValue) {
    zelVerifyThrowAs(hasMember(eValue, "name"), "eValue.hasMember(\"name\")");
    const Json::Value& eName = eValue["name"];
    zelVerifyThrow(eName.isString());
    return Name(eName.asString());
}

uint64 Stream::parseInt(const String& str) {
    const char* const last = str.c_str() + str.size();
    const char* const begin =
        std::find_if_not(str.c_str(), last, [](char c) { return c == ' ' || (c >= '\t' && c <= '\r'); });
    uint64 number = 0;
    const auto [behind, error] = std::from_chars(begin, last, number);
    zelVerifyThrowAs(behind != begin, "end != str.c_str()");
    zelVerifyThrowN(error == std::errc(), "The number '%s' is too large", shortened(str).c_str());
    return number;
}

uint64 Stream::parseInt(const Json::Value& eValue) {
    zelVerifyThrow(eValue.isString() || eValue.isUInt());
    return eValue.isString() ? parseInt(String(eValue.asString())) : uint64{eValue.asUInt()};
}

Stream::BinaryMeta Stream::parseBinaryMeta(const Json::Value& eBinary) {
    zelVerifyThrowAs(hasMember(eBinary, "numBytes"), "eValue.hasMember(\"numBytes\")");
    zelVerifyThrowAs(hasMember(eBinary, "offset"), "eValue.hasMember(\"offset\")");
    const Json::Value& eNumBytes = eBinary["numBytes"];
    const Json::Value& eOffset = eBinary["offset"];
    zelVerifyThrow(eNumBytes.isString() || eNumBytes.isUInt());
    zelVerifyThrow(eOffset.isString() || eOffset.isUInt());
    BinaryMeta binaryMeta;
    binaryMeta.numBytes = parseInt(eNumBytes);
    binaryMeta.offset = parseInt(eOffset);
    if (eBinary.isMember("compressedSize")) {
        const Json::Value& eCompressedSize = eBinary["compressedSize"];
        zelVerifyThrow(eCompressedSize.isUInt());
        binaryMeta.compressedSize = eCompressedSize.asUInt();
    }
    return binaryMeta;
}

ref_ptr<zelData::Value>
Stream::parseValue(Object* context, const Json::Value& eValue, const zelData::BinaryData* payload) {
    const Name name = parseName(eValue);
    const zelData::Format* const format = parseFormat(eValue);
    ref_ptr<zelData::Value> value(new zelData::Value(name, format));
    if (eValue.isMember("value")) {
        const Json::Value& eContent = eValue["value"];
        zelVerifyThrow(eContent.isString());
        const String text = eContent.asString();
        if (text.find(':') == std::string::npos)
            setExpression(*value, context, text);
        else
            setEntity(*value, context, text);
        return value;
    }
    const BinaryMeta binaryMeta = parseBinaryMeta(eValue);
    zelVerifyThrow(binaryMeta.numBytes == format->getSize());
    const uint8* const bytes = bytesOf(binaryMeta, format, payload);
    std::memcpy(value->getData(), bytes, format->getSize());
    return value;
}

ref_ptr<zelData::Buffer>
Stream::parseBuffer(Object*, const Json::Value& eBuffer, const zelData::BinaryData* payload) {
    const zelData::Format* const format = parseFormat(eBuffer);
    const Name name = parseName(eBuffer);
    const BinaryMeta binaryMeta = parseBinaryMeta(eBuffer);
    zelVerifyThrowAs(hasMember(eBuffer, "numElements"), "eBuffer.hasMember(\"numElements\")");
    const Json::Value& eNumElements = eBuffer["numElements"];
    zelVerifyThrow(eNumElements.isUInt());
    const uint64 numElements = eNumElements.asUInt();
    zelVerifyThrowAs(binaryMeta.numBytes % format->getSize() == 0 &&
                         binaryMeta.numBytes / format->getSize() == numElements,
                     "binaryMeta.numBytes == format->getSize() * numElements");
    const uint8* const bytes = bytesOf(binaryMeta, format, payload);
    ref_ptr<zelData::Buffer> buffer(new zelData::Buffer(name, format));
    buffer->resize(numElements);
    if (numElements != 0)
        std::memcpy(buffer->getElement(0), bytes, binaryMeta.numBytes);
    return buffer;
}

ref_ptr<Object>
Stream::parseParameter(Object* context, const Json::Value& eParameter, const zelData::BinaryData* payload) {
    zelVerifyThrowAs(hasMember(eParameter, "model"), "eParameter.hasMember(\"model\")");
    const Json::Value& eModel = eParameter["model"];
    zelVerifyThrow(eModel.isString());
    const String modelName = eModel.asString();
    // Models of classes are made when they are first asked for.
    const Model* const pointerModel = Pointer::ClassModel();
    const Model* const bufferModel = zelData::Buffer::ClassModel();
    const Model* const valueModel = zelData::Value::ClassModel();
    const SearchPathsOnly scope;
    const Model* const model = isPlainPath(modelName) ? Model::getModel(modelName) : nullptr;
    zelVerifyThrowN(model, "Unknown model '%s'", shortened(modelName).c_str());
    if (eParameter.isMember("bind")) {
        const Json::Value& eBind = eParameter["bind"];
        zelVerifyThrow(eBind.isString());
        Object* const binding = Object::getResource(context, verifiedPath(eBind.asString()), nullptr);
        zelVerifyThrow(binding);
        if (model->is(pointerModel))
            return new Pointer(parseName(eParameter), binding);
        zelVerifyThrow(binding->getModel() == model);
        return binding;
    }
    if (model->is(bufferModel))
        return ref_ptr<Object>(parseBuffer(context, eParameter, payload).get());
    if (model->is(valueModel))
        return ref_ptr<Object>(parseValue(context, eParameter, payload).get());
    zelVerifyThrowN(false, "Unknown model '%s'", shortened(modelName).c_str());
    return nullptr;
}

} // namespace zel
