#include "Command.h"
#include "Series.h"

#include <zelData/PlainJournal.h>

#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <fstream>
#include <iostream>

// zel journal export.

namespace tool {

namespace {

/// As a spreadsheet reads it.
std::string quoted(const std::string& text) {
    if (text.find_first_of(",\"\n\r") == std::string::npos)
        return text;
    std::string result = "\"";
    for (const char c : text)
        result += c == '"' ? std::string("\"\"") : std::string(1, c);
    return result + '"';
}

std::string columnName(const Series& series, std::size_t k) {
    return series.getName() + (series.width() > 1 ? "[" + std::to_string(k) + "]" : "");
}

void writeCsv(std::ostream& stream, const SeriesTable& table) {
    stream << "frame,time";
    for (const Series& series : table.series())
        for (std::size_t k = 0; k < series.width(); ++k)
            stream << ',' << quoted(columnName(series, k));
    stream << '\n';
    for (std::size_t row = 0; row < table.numRows(); ++row) {
        stream << table.frame(row) << ',' << toText(table.time(row));
        for (const Series& series : table.series())
            for (std::size_t k = 0; k < series.width(); ++k)
                stream << ',' << quoted(series.text(row, k));
        stream << '\n';
    }
}

void append(std::string& bytes, const void* data, std::size_t size) {
    bytes.append(static_cast<const char*>(data), size);
}

/// As a text of Python.
std::string literal(const std::string& text) {
    std::string result = "'";
    for (const char c : text) {
        if (c == '\'' || c == '\\')
            result += '\\';
        result += static_cast<unsigned char>(c) < 32 ? '?' : c;
    }
    return result + "'";
}

/// The format of numpy, version 1.0: a magic, the length of the header, a dictionary of Python, and the
/// records.
void writeNpy(std::ostream& stream, const SeriesTable& table) {
    static_assert(std::endian::native == std::endian::little);
    std::string types = "('frame', '<u8'), ('time', '<f8')";
    for (const Series& series : table.series()) {
        if (!series.isNumber())
            throw std::runtime_error("'" + series.getName() + "' is no number; --csv writes texts");
        types += ", (" + literal(series.getName()) + ", '<f8'" +
                 (series.width() > 1 ? ", (" + std::to_string(series.width()) + ",)" : "") + ")";
    }
    std::string header = "{'descr': [" + types + "], 'fortran_order': False, 'shape': (" +
                         std::to_string(table.numRows()) + ",), }";
    // Version 1 tells its length in 16 bits, version 2 in 32; the elements begin at a multiple of 64.
    const std::size_t preamble = 10;
    header.resize((preamble + header.size() + 1 + 63) / 64 * 64 - preamble - 1, ' ');
    header += '\n';
    if (header.size() > 0xFFFF)
        throw std::runtime_error("the names of the columns are too long for an array of numpy");
    std::string bytes = "\x93NUMPY";
    bytes += '\1';
    bytes += '\0';
    const auto length = static_cast<std::uint16_t>(header.size());
    append(bytes, &length, sizeof(length));
    bytes += header;
    for (std::size_t row = 0; row < table.numRows(); ++row) {
        const std::uint64_t frame = table.frame(row);
        const double time = table.time(row);
        append(bytes, &frame, sizeof(frame));
        append(bytes, &time, sizeof(time));
        for (const Series& series : table.series())
            for (std::size_t k = 0; k < series.width(); ++k) {
                const double number = series.number(row, k);
                append(bytes, &number, sizeof(number));
            }
    }
    stream << bytes;
}

} // namespace

int exportSeries(const Arguments& arguments) {
    const bool isNpy = arguments.has("--npy");
    if (isNpy && arguments.has("--csv"))
        throw UsageError("--csv and --npy are two ways to write one table");
    if (isNpy && !arguments.has("--output") && isatty(STDOUT_FILENO) != 0)
        throw UsageError("--npy writes bytes: --output tells where to");
    std::vector<std::string> paths = arguments.positional();
    const std::string file = paths.front();
    paths.erase(paths.begin());
    zelData::PlainJournal journal(file);
    for (const auto& fault : journal.getFaults())
        std::cerr << "zel: " << file << ", at offset " << fault.offset << ": " << printable(fault.text)
                  << '\n';
    const SeriesTable table(journal, paths);

    std::ofstream output;
    if (arguments.has("--output")) {
        output.open(arguments.get("--output"), std::ios::binary);
        if (!output)
            throw std::runtime_error("could not write '" + arguments.get("--output") + "'");
    }
    std::ostream& stream = arguments.has("--output") ? static_cast<std::ostream&>(output) : std::cout;
    if (isNpy)
        writeNpy(stream, table);
    else
        writeCsv(stream, table);
    if (arguments.has("--output")) {
        output.close();
        if (!output)
            throw std::runtime_error("could not write '" + arguments.get("--output") + "'");
        std::cout << "Wrote " << table.numRows() << " rows to " << arguments.get("--output") << ".\n";
    }
    return journal.getFaults().empty() ? Done : Differs;
}

} // namespace tool
