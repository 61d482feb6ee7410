// Whether the time of a refusal tells how much of a token was right: 20,000 wrong tokens, of which each
// second one begins with all but the last byte of the right one, the others with no byte of it, in random
// order. Printed are the medians of both and the interval, at 95 %, in which the difference of the medians
// lies: 0 should lie in it. A comparison that stops at the first difference shows what the measurement would
// find.
//
// It has no peer and no ratio, so script/bench does not run it: build/bench/bench/TokenTiming.
#include "transport/Token.h"

#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelNet/ControlChannel.h>
#include <zelNet/StructuredMessage.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using zelNet::StructuredMessage;
using zelNet::WebSocket;
using zelNet::WebSocketServer;

constexpr int NumGuesses = 20'000;
constexpr int NumResamples = 2'000;

using Times = std::vector<double>; // in ns
using Random = std::mt19937_64;
using Refuse = std::function<void(const std::string& guess)>;

double medianOf(Times times) {
    const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::nth_element(times.begin(), middle, times.end());
    return *middle;
}

Times resampled(const Times& times, Random& random) {
    Times result(times.size());
    for (double& time : result)
        time = times[random() % times.size()];
    return result;
}

/// Guesses of the length of the token.
struct Guesses {
    explicit Guesses(const std::string& token) {
        nearly = token;
        nearly.back() = token.back() == 'x' ? 'y' : 'x';
        far.assign(token.size(), 'z'); // which is no digit of a token
    }
    std::string nearly, far;
};

/// @param numRepeats  of each guess in one measurement, for clocks that count in 10 ns
void measure(const char* what, const std::string& token, int numRepeats, const Refuse& refuse) {
    Random random(1);
    const Guesses guesses(token);
    std::array<Times, 2> times; // of those that begin as the token does, and of the others
    for (int i = 0; i < NumGuesses; ++i)
        times[static_cast<std::size_t>(i % 2)].reserve(NumGuesses / 2);
    std::vector<bool> order(NumGuesses);
    for (std::size_t i = 0; i < order.size(); ++i)
        order[i] = i % 2 == 0;
    std::shuffle(order.begin(), order.end(), random);
    for (int i = 0; i < 1000; ++i)
        refuse(i % 2 == 0 ? guesses.nearly : guesses.far); // until all is warm
    std::string guess;
    for (const bool isNear : order) {
        guess = isNear ? guesses.nearly : guesses.far; // always the same memory
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < numRepeats; ++i)
            refuse(guess);
        const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - start;
        times[isNear ? 0 : 1].push_back(time.count() / numRepeats);
    }
    Times differences(NumResamples);
    for (double& difference : differences)
        difference = medianOf(resampled(times[0], random)) - medianOf(resampled(times[1], random));
    std::sort(differences.begin(), differences.end());
    const double low = differences[NumResamples / 40],
                 high = differences[NumResamples - 1 - NumResamples / 40];
    std::printf("%-56s %5zu bytes  %9.2f ns  %9.2f ns  %+8.2f to %+8.2f ns  %s\n",
                what,
                token.size(),
                medianOf(times[0]),
                medianOf(times[1]),
                low,
                high,
                low <= 0 && high >= 0 ? "no difference" : "a difference");
}

/// As a client's message comes to the channel, without a network in between.
class Channel {
public:
    explicit Channel(const std::string& token)
        : m_channel(WebSocketServer::NoListen, token)
        , m_socket(m_channel.getServer()->acceptNewClient(nullptr)) {}

    void refuse(const std::string& guess) {
        const std::string uri = "authenticate";
        const std::string header = "{\"token\":\"" + guess + "\"}";
        StructuredMessage::PreHeader numbers;
        numbers.messageId = ++m_lastId;
        numbers.uriSize = static_cast<zel::uint32>(uri.size());
        numbers.headerSize = static_cast<zel::uint32>(header.size());
        std::string bytes(sizeof(numbers), '\0');
        numbers.write(reinterpret_cast<zel::uint8*>(bytes.data()));
        bytes += uri + header;
        m_socket->messageReceived(bytes.data(), bytes.size());
        if (m_socket->isAuthenticated())
            std::abort();
    }

private:
    WebSocket::ControlChannel m_channel;
    zel::ref_ptr<WebSocket> m_socket;
    zel::uint32 m_lastId = 0;
};

std::string tokenOf(std::size_t size) {
    Random random(2);
    std::string token(size, '\0');
    for (char& digit : token)
        digit = "0123456789abcdef"[random() % 16];
    return token;
}

bool isSameUntilTheFirstDifference(const std::string& guess, const std::string& token) {
    for (std::size_t i = 0; i < token.size(); ++i) {
        const volatile char* const byte = &guess[i]; // one at a time
        if (*byte != token[i])
            return false;
    }
    return true;
}

} // namespace

int main() {
    zelCore::init();
    std::printf("%-56s %11s  %12s  %12s  %s\n", "", "token", "nearly right", "wrong", "difference, 95 %");
    for (const std::size_t size : {32U, 1024U}) {
        const std::string token = tokenOf(size);
        const auto require = [](bool isSame) {
            if (isSame)
                std::abort();
        };
        measure("a comparison that stops at the first difference", token, 32, [&](const std::string& guess) {
            require(isSameUntilTheFirstDifference(guess, token));
        });
        measure(
            "ours", token, 32, [&](const std::string& guess) { require(zelNet::isSameToken(guess, token)); });
        std::streambuf* const printed = std::cout.rdbuf(nullptr); // each refusal
        Channel channel(token);
        measure("a control channel", token, 8, [&](const std::string& guess) { channel.refuse(guess); });
        std::cout.rdbuf(printed);
    }
    std::fflush(stdout);
    zelCore::shutdown();
    return 0;
}
