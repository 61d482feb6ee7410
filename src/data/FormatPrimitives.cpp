#include <zel/Log.h>
#include <zel/Verify.h>
#include <zelData/Format.h>

namespace zelData {

namespace {

using CallerTable = zel::HashTable<const Format*, std::unique_ptr<FormatCaller>>;

/// Never destroyed: formats may still be looked at while the process ends.
CallerTable& typeCallerTable() {
    static CallerTable& table = *new CallerTable;
    return table;
}

} // namespace

void Format::registerFormatCaller(const Format* format,
                                  std::unique_ptr<FormatCaller> caller,
                                  zel::uint64 primitiveSize,
                                  unsigned int stride,
                                  unsigned int padding) {
    CallerTable& table = typeCallerTable();
    zelVerifyNAs(table.find(format) == table.end(),
                 "__zel_typeCallerTable.find( format ) == __zel_typeCallerTable.end()",
                 "Format: The format '%s' have already been registered.",
                 format->fullName().c_str());
    const zel::uint64 elementSize = primitiveSize * stride;
    zelVerifyN(elementSize == format->getSize(),
               "Size mismatch, format %s is %u bytes, packed element is %u bytes",
               format->fullName().c_str(),
               static_cast<unsigned int>(format->getSize()),
               static_cast<unsigned int>(elementSize));
    zelVerifyN(padding < stride,
               "Format: A format cannot be all padding, or contain more padding than total memory usage. "
               "stride: %d, padding: %d.",
               static_cast<int>(stride),
               static_cast<int>(padding));
    table.insert(format, std::move(caller));
}

bool Format::callFormatPrimitive(const Format* format, const CallbackList& callbackList) {
    const auto position = typeCallerTable().find(format);
    if (position == typeCallerTable().end()) {
        ZEL_LOG_WARNING("Format: No primitive coupling for format '" << format->fullName() << "'");
        return false;
    }
    return position->value->call(callbackList);
}

void Format::forceClearTypeCallerTable() {
    typeCallerTable().clear();
}

} // namespace zelData
