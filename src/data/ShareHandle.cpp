#include <zel/HashTable.h>
#include <zel/Singleton.h>
#include <zel/Verify.h>
#include <zelData/Buffer.h>
#include <zelData/ShareHandle.h>

#include <string>
#include <utility>

namespace zelData {

namespace {

/// The functions of all bridges.
class ShareHandleSingleton : public zel::Singleton {
public:
    struct Functions {
        ShareHandle::TransferFunction transfer;
        ShareHandle::InitFunction init;
    };
    zel::HashTable<ShareHandle::PlatformBridge, Functions> bridges;

    static ShareHandleSingleton* instance() {
        if (s_instance == nullptr)
            s_instance = new ShareHandleSingleton;
        return s_instance;
    }
    void shutdown() override { s_instance = nullptr; }
    [[nodiscard]] std::string getClassName() const override { return __PRETTY_FUNCTION__; }

private:
    static ShareHandleSingleton* s_instance;
};

ShareHandleSingleton* ShareHandleSingleton::s_instance = nullptr;

const ShareHandleSingleton::Functions* findBridge(const zel::Device* a, const zel::Device* b) {
    const auto& bridges = ShareHandleSingleton::instance()->bridges;
    const auto it = bridges.find(ShareHandle::PlatformBridge(a->getType(), b->getType()));
    return it == bridges.end() ? nullptr : &it->value;
}

} // namespace

void ShareHandle::registerBridge(const PlatformBridge& bridge, TransferFunction transfer, InitFunction init) {
    ShareHandleSingleton::instance()->bridges.insert(bridge, {std::move(transfer), std::move(init)});
}

ShareHandle* ShareHandle::create(Buffer* a, Buffer* b) {
    auto* handle = new ShareHandle;
    handle->addBuffer(a);
    handle->addBuffer(b);
    handle->m_activeBuffer = a;
    return handle;
}

void ShareHandle::addBuffer(Buffer* buffer) {
    zelVerifyN(buffer->getShareHandle() == nullptr,
               "%s: The buffer belongs to a share handle already",
               buffer->getPath().c_str());
    m_buffers.push_back(buffer);
    buffer->m_shareHandle = this;
}

void ShareHandle::removeBuffer(Buffer* buffer) {
    if (!m_buffers.findAndErase(buffer))
        return;
    if (m_activeBuffer == buffer)
        m_activeBuffer = nullptr;
    buffer->m_shareHandle = nullptr; // may end this handle
}

bool ShareHandle::hasBridge(const zel::Device* a, const zel::Device* b) {
    return findBridge(a, b) != nullptr;
}

void ShareHandle::activate(Buffer* buffer) {
    if (m_activeBuffer == buffer)
        return;
    zelVerifyN(m_buffers.contains(buffer),
               "%s: The buffer does not belong to the share handle",
               buffer->getPath().c_str());
    if (m_activeBuffer != nullptr) {
        const auto* bridge = findBridge(m_activeBuffer->getDevice(), buffer->getDevice());
        zelVerifyN(bridge != nullptr && bridge->transfer,
                   "%s: There is no bridge from a device of type '%s' to one of type '%s'",
                   buffer->getPath().c_str(),
                   m_activeBuffer->getDevice()->getTypeName().c_str(),
                   buffer->getDevice()->getTypeName().c_str());
        bridge->transfer(buffer, m_activeBuffer);
    }
    m_activeBuffer = buffer;
}

void ShareHandle::reinit() {
    for (zel::size_t i = 0; i < m_buffers.size(); ++i)
        for (zel::size_t j = i + 1; j < m_buffers.size(); ++j) {
            const auto* bridge = findBridge(m_buffers[i]->getDevice(), m_buffers[j]->getDevice());
            if (bridge != nullptr && bridge->init)
                bridge->init(m_buffers[i], m_buffers[j]);
        }
}

} // namespace zelData
