#pragma once

#include <zel/ref_ptr.h>
#include <zelData/FrameTranspose.h>
#include <zelData/PlainElements.h>
#include <zelData/PlainFrame.h>
#include <zelData/PlainJournal.h>

#include <memory>
#include <string>
#include <vector>

namespace tool {

/// One datum of a journal over time: of each row, some numbers or a text.
class Series {
public:
    Series(std::string name, zelData::FrameTranspose::Track* track, std::size_t numRows);

    [[nodiscard]] const std::string& getName() const { return m_name; }
    [[nodiscard]] bool isNumber() const { return m_texts.empty() && m_elements->numNumbers() != 0; }
    /// The columns that it takes.
    [[nodiscard]] std::size_t width() const;
    [[nodiscard]] std::string text(std::size_t row, std::size_t k) const;
    [[nodiscard]] double number(std::size_t row, std::size_t k) const;

private:
    std::string m_name;
    std::size_t m_numElements = 1; // of each row
    std::vector<std::string> m_texts;
    std::unique_ptr<zelData::PlainFrame::Node> m_node; // the elements, for what follows
    std::unique_ptr<zelData::PlainElements> m_elements;
};

/// What stands at some paths, with a row for each frame.
class SeriesTable {
public:
    /// @param paths  as the command export takes them
    /// @throws std::runtime_error that names the path which leads nowhere, and the frame
    SeriesTable(zelData::PlainJournal& journal, const std::vector<std::string>& paths);

    [[nodiscard]] const std::vector<Series>& series() const { return m_series; }
    [[nodiscard]] std::size_t numRows() const { return m_frames.size(); }
    [[nodiscard]] unsigned long frame(std::size_t row) const { return m_frames[row]; }
    [[nodiscard]] double time(std::size_t row) const { return m_times[row]; }

private:
    std::vector<Series> m_series;
    std::vector<unsigned long> m_frames;
    std::vector<double> m_times;
};

} // namespace tool
