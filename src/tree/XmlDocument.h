#pragma once

#include <zel/String.h>
#include <zel/Xml.h>

#include <cstddef>
#include <memory>
#include <string>

namespace zel {

/// Why a document could not be read.
struct XmlFileError {
    std::size_t row = 0; ///< of the fault; 0 for the file as a whole
    std::string reason;
};

/// Reads the text of a regular file of at most 64 MiB.
/// @return false, with the reason in `error`, if that fails
[[nodiscard]] bool readTextFile(const String& file, std::string& text, XmlFileError& error);

/// Reads an XML document. Refuses files above 64 MiB and elements nested more than 512 deep.
/// @return null, with the reason in `error`, if that fails
[[nodiscard]] std::unique_ptr<TiXmlDocument> parseXmlFile(const String& file, XmlFileError& error);

/// The same of a text that has been read already, up to its checks of size.
/// @param name  of the document, for messages
[[nodiscard]] std::unique_ptr<TiXmlDocument>
parseXmlText(const std::string& text, const String& name, XmlFileError& error);

/// What is said of a model file that can not be read.
[[nodiscard]] std::string describeXmlFileError(const String& file, const XmlFileError& error);

} // namespace zel
