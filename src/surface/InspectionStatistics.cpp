#include "InspectionStatistics.h"

#include "InspectionElements.h"
#include "InspectionRequest.h"

#include <zel/Statistics.h>
#include <zelNet/StructuredMessage.h>

#include <string>
#include <vector>

namespace zelNet {

namespace {

constexpr Json::ArrayIndex MaxProviders = 1000;

template <typename T>
bool describe(Json::Value& json, const zel::StatisticsData& data) {
    const auto* typed = dynamic_cast<const zel::StatisticsDataT<T>*>(&data);
    if (typed == nullptr)
        return false;
    json["value"] = realToJson(static_cast<double>(typed->getValue()));
    json["accumulated"] = realToJson(static_cast<double>(typed->getAccumulated()));
    json["count"] = realToJson(static_cast<double>(typed->getCount()));
    return true;
}

std::string nameOf(const char* name) {
    return name == nullptr ? std::string() : std::string(cutText(name));
}

} // namespace

Json::Value describeStatistics() {
    Json::Value response(Json::objectValue);
    response["enabled"] = zel::Statistics::getEnable();
    Json::Value& providers = response["providers"] = Json::Value(Json::arrayValue);
    std::vector<std::string> above; // the names on the way
    zel::Statistics::instance()->visit(
        [&](const zel::Statistics::ProviderHandle& provider, zel::uint32 depth) {
            above.resize(depth);
            above.push_back(nameOf(provider.getName()));
            if (providers.size() == MaxProviders)
                return;
            Json::Value& json = providers.append(Json::Value(Json::objectValue));
            json["name"] = above.back();
            json["depth"] = depth;
            std::string path = above.front();
            for (std::size_t i = 1; i < above.size(); ++i)
                path += "/" + above[i];
            json["path"] = cutText(path);
            Json::Value& all = json["data"] = Json::Value(Json::arrayValue);
            for (const bool timing : {true, false})
                for (const zel::StatisticsData* data : provider.getAllData(timing)) {
                    Json::Value entry;
                    entry["name"] = nameOf(data->getName());
                    entry["timing"] = timing;
                    // Of a kind of one's own, nothing is known but that it is there.
                    if (describe<double>(entry, *data) || describe<float>(entry, *data) ||
                        describe<unsigned long>(entry, *data))
                        all.append(entry);
                }
        });
    return response;
}

} // namespace zelNet
