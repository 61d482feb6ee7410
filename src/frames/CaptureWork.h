#pragma once

#include "CaptureColumn.h"

#include <zel/LambdaKernel.h>
#include <zel/RangeJob.h>
#include <zel/Thread.h>
#include <zel/ref_ptr.h>

namespace zelData {

/// Goes through pieces, on all threads where it pays.
class CaptureWork {
public:
    CaptureWork()
        : m_kernel(new zel::LambdaKernel("capture", [this](const zel::RangeJob& job) {
            run(job.getRange().begin(), job.getRange().end());
        })) {
        m_kernel->setMinJobSize(1);
    }
    CaptureWork(const CaptureWork&) = delete;
    CaptureWork& operator=(const CaptureWork&) = delete;
    ~CaptureWork() = default;

    void compareAll() {
        m_copies = false;
        start(compared.size(), compared.getNumBytes());
    }
    /// What is told in whole, and the compared pieces of which a part is told.
    void copyAll() {
        m_copies = true;
        start(copied.size() + compared.size(), copied.getNumBytes());
    }
    void clear() {
        compared.clear();
        copied.clear();
    }

    CapturePieces compared;
    CapturePieces copied;

private:
    /// Less is done before another thread is awake.
    static constexpr zel::uint64 MinBytes = zel::uint64{256} << 10;

    void start(zel::uint64 numPieces, zel::uint64 numBytes) {
        if (numBytes < MinBytes || zel::getNumThreads() == 1) {
            run(0, numPieces);
            return;
        }
        m_kernel->setNumWorkItems(numPieces);
        m_kernel->execute();
    }
    void run(zel::uint64 begin, zel::uint64 end) {
        for (; begin < end; ++begin) {
            if (!m_copies) {
                compared[begin].column->compare(compared[begin]);
            } else if (begin < copied.size()) {
                copied[begin].column->copy(copied[begin]);
            } else if (const CapturePiece& piece = compared[begin - copied.size()];
                       piece.column->getMode() == CaptureColumn::Mode::Part) {
                piece.column->copy(piece);
            }
        }
    }

    zel::ref_ptr<zel::LambdaKernel> m_kernel;
    bool m_copies = false;
};

} // namespace zelData
