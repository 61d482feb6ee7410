#include "CaptureTree.h"
#include "CaptureWork.h"
#include "FrameWalk.h"
#include "RunState.h"

#include <zel/Clock.h>
#include <zel/Verify.h>
#include <zelData/FrameCapture.h>

namespace zelData {

FrameCapture::FrameCapture(zel::Component* root, bool keepsRoot)
    : FrameIO(false)
    , m_keptRoot(keepsRoot ? root : nullptr)
    , m_root(root)
    , m_tree(new CaptureTree(
          root, [this](const zel::Path& path, const zel::String& reason) { omit(path, reason); }))
    , m_work(new CaptureWork) {
    zelVerify(root);
}

FrameCapture::~FrameCapture() = default;

void FrameCapture::omit(const zel::Path& path, const zel::String& reason) {
    noteOmission(m_omissions, path, "recorded", reason);
}

void FrameCapture::captureClocks(zel::Clock* clock) {
    zelVerify(clock);
    m_runState = std::make_unique<RunStateWriter>(m_root, clock);
}

zel::ref_ptr<Frame> FrameCapture::capture(zel::uint64 index, double timeStamp, double timeStep) {
    return fill(zel::ref_ptr<Frame>(new Frame(index, timeStamp, timeStep)));
}

zel::ref_ptr<Frame> FrameCapture::capture(zel::Clock* clock) {
    zelVerify(clock);
    return fill(zel::ref_ptr<Frame>(new Frame(clock)));
}

zel::ref_ptr<Frame> FrameCapture::fill(zel::ref_ptr<Frame> frame) {
    const RebindOff rebindOff;
    const bool isDue = m_keyFrameInterval != 0 && m_numIncrements + 1 >= m_keyFrameInterval;
    bool isKeyFrame = m_wantsKeyFrame || isDue;
    m_wantsKeyFrame = true; // until the frame stands
    if (m_tree->update(getDataBindings()))
        isKeyFrame = true;
    m_tree->look();
    m_work->clear();
    if (!isKeyFrame) {
        m_tree->startCompare(m_work->compared);
        m_work->compareAll();
        isKeyFrame =
            !m_tree->decide(false, m_work->compared) || m_tree->getToldBytes() > m_tree->getWholeBytes();
    }
    if (isKeyFrame) {
        m_work->clear();
        (void)m_tree->decide(true, m_work->compared);
    }
    frame->setId(m_root->getId()); // and not that of the frame, so that equal runs have equal bytes
    frame->setKeyFrame(isKeyFrame);
    frame->setSerialized(true);
    m_tree->build(frame.get(), m_work->copied);
    m_work->copyAll();
    if (m_runState)
        m_runState->write(frame.get());
    m_numIncrements = isKeyFrame ? 0 : m_numIncrements + 1;
    m_wantsKeyFrame = false;
    return frame;
}

zel::uint64 FrameCapture::getMemory() const {
    return m_tree->getMemory() + m_work->compared.getMemory() + m_work->copied.getMemory();
}

} // namespace zelData
