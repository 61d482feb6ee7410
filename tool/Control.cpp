#include "Control.h"

#include <zel/Component.h>
#include <zelNet/ControlChannel.h>
#include <zelNet/NetError.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace tool {

namespace {

constexpr std::chrono::milliseconds ServiceInterval(2);
constexpr unsigned long LargestPort = 65534; // the one above stands for none

/// 128 bits from the system.
std::string randomToken() {
    std::random_device device;
    std::ostringstream token;
    token << std::hex << std::setfill('0');
    for (int i = 0; i < 4; ++i)
        token << std::setw(8) << device();
    return token.str();
}

std::string tokenOf(const Arguments& arguments) {
    if (arguments.has("--open"))
        return {};
    return arguments.has("--token") ? arguments.get("--token") : randomToken();
}

/// As it stands in an address, where only some characters may.
std::string encoded(const std::string& text) {
    std::ostringstream result;
    result << std::hex << std::uppercase << std::setfill('0');
    for (const char c : text)
        if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' ||
            c == '_')
            result << c;
        else
            result << '%' << std::setw(2) << static_cast<int>(static_cast<unsigned char>(c));
    return result.str();
}

zel::ref_ptr<zelNet::WebSocket::ControlChannel> makeChannel(const Arguments& arguments,
                                                            const std::string& token) {
    const unsigned long port = arguments.number("--control", 0);
    try {
        return new zelNet::WebSocket::ControlChannel(static_cast<zel::uint16>(port), token);
    } catch (const zelNet::NetError& error) {
        throw std::runtime_error("the port " + std::to_string(port) + " cannot be had: " + error.what());
    }
}

} // namespace

void Control::verifyOptions(const Arguments& arguments, bool serves) {
    if (!arguments.has("--control") && !serves) {
        for (const char* option : {"--token", "--open", "--writable"})
            if (arguments.has(option))
                throw UsageError(std::string(option) + " goes with --control");
        return;
    }
    if (arguments.number("--control", 0) > LargestPort)
        throw UsageError("--control wants a port from 0 to " + std::to_string(LargestPort));
    if (arguments.has("--open") && arguments.has("--token"))
        throw UsageError("--open and --token are two ways to tell who may connect");
    if (arguments.has("--token") && arguments.get("--token").empty())
        throw UsageError("--token wants a text; --open lets everybody in");
}

Control::Control(const Arguments& arguments) : m_page(0, "") {
    const std::string token = tokenOf(arguments);
    const auto channel = makeChannel(arguments, token);
    m_service = new zelNet::InspectionService(channel.get(), zel::root());
    m_service->setWritable(arguments.has("--writable"));
    std::string fragment = "#control=" + std::to_string(channel->getPort());
    if (!token.empty())
        fragment += "&token=" + encoded(token);
    if (m_page.start())
        std::cout << "Control: http://localhost:" << m_page.getPort() << "/" << fragment << std::endl;
    else
        std::cout << "Control: port " << channel->getPort() << (token.empty() ? "" : ", token " + token)
                  << " (the page is not there)" << std::endl;
}

Control::~Control() {
    m_page.stop();
    m_page.join();
}

void Control::show(const FrameStreams& streams) {
    m_service->setStreams([&streams] { return streams.states(); });
}

void Control::addRun(zel::Clock& clock, zel::Component* model) {
    m_service->addLiveTrack(model->getName(), &clock, model);
}

void Control::addJournal(const std::string& file, bool opens) {
    // A name is a part of a path, and there may be several files of one name.
    std::string stem = std::filesystem::path(file).stem().string();
    std::replace(stem.begin(), stem.end(), '.', '-');
    std::string name = stem;
    for (int i = 2; zel::root()->findObject(zel::Name(name)) != nullptr || m_names.contains(name); ++i)
        name = stem + "-" + std::to_string(i);
    m_names.insert(name);
    const zel::uint64 id = m_service->addJournal(file, zel::Name(name));
    if (opens)
        m_service->openJournal(id);
}

void Control::serviceIfDue() {
    const auto now = std::chrono::steady_clock::now();
    if (now < m_due)
        return;
    m_service->service();
    m_due = now + ServiceInterval;
}

void Control::serviceAndRest() {
    if (!m_service->service())
        std::this_thread::sleep_for(ServiceInterval);
}

} // namespace tool
