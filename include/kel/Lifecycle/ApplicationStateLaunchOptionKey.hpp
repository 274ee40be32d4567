// kel::ApplicationStateLaunchOptionKey — why and with what the application was launched: the
// keys of the launch-options dictionary handed to ApplicationStateMonitor.
//
// A tagged value: one of the named keys (ApplicationStateLaunchOptionKey::url, ...) or
// ApplicationStateLaunchOptionKey::unknown(text) for a platform key that none of them names.
// Two keys are equal when they are the same case and, for `unknown`, carry the same text;
// std::hash agrees with that. The library has no table from platform key names to cases: the
// application builds the dictionary (ApplicationStateLaunchOptions) itself.
//
// Thread rules: a value type; copies may travel to any thread.
#pragma once

#include <any>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <utility>

#include "kel/Export.hpp"

namespace kel {

class KEL_EXPORT ApplicationStateLaunchOptionKey {
  public:
    enum class Case : std::uint8_t {
        unknown,
        annotation,
        remoteNotification,
        shortcutItem,
        userActivityType,
        userActivityDictionary,
        url,
        sourceApplication,
        kioskDownloads,
        location,
        vaultShareMetadata,
        bluetoothPeripherals,
        bluetoothCentrals,
    };

    // A key that none of the named cases describes, carrying the platform's key text.
    static ApplicationStateLaunchOptionKey unknown(std::string text) {
        return ApplicationStateLaunchOptionKey(Case::unknown, std::move(text));
    }

    static const ApplicationStateLaunchOptionKey annotation;
    static const ApplicationStateLaunchOptionKey remoteNotification;
    static const ApplicationStateLaunchOptionKey shortcutItem;
    static const ApplicationStateLaunchOptionKey userActivityType;
    static const ApplicationStateLaunchOptionKey userActivityDictionary;
    static const ApplicationStateLaunchOptionKey url;
    static const ApplicationStateLaunchOptionKey sourceApplication;
    static const ApplicationStateLaunchOptionKey kioskDownloads;
    static const ApplicationStateLaunchOptionKey location;
    static const ApplicationStateLaunchOptionKey vaultShareMetadata;
    static const ApplicationStateLaunchOptionKey bluetoothPeripherals;
    static const ApplicationStateLaunchOptionKey bluetoothCentrals;

    Case kind() const noexcept { return case_; }
    // The text of an `unknown` key; empty for the named cases.
    const std::string& unknownText() const noexcept { return text_; }

    friend bool operator==(const ApplicationStateLaunchOptionKey&,
                           const ApplicationStateLaunchOptionKey&) = default;

  private:
    explicit ApplicationStateLaunchOptionKey(Case value, std::string text = {})
        : case_(value), text_(std::move(text)) {}

    Case case_;
    std::string text_;  // empty unless case_ is unknown
};

inline const ApplicationStateLaunchOptionKey ApplicationStateLaunchOptionKey::annotation{
    Case::annotation};
inline const ApplicationStateLaunchOptionKey ApplicationStateLaunchOptionKey::remoteNotification{
    Case::remoteNotification};
inline const ApplicationStateLaunchOptionKey ApplicationStateLaunchOptionKey::shortcutItem{
    Case::shortcutItem};
inline const ApplicationStateLaunchOptionKey ApplicationStateLaunchOptionKey::userActivityType{
    Case::userActivityType};
inline const ApplicationStateLaunchOptionKey
    ApplicationStateLaunchOptionKey::userActivityDictionary{Case::userActivityDictionary};
inline const ApplicationStateLaunchOptionKey ApplicationStateLaunchOptionKey::url{Case::url};
inline const ApplicationStateLaunchOptionKey ApplicationStateLaunchOptionKey::sourceApplication{
    Case::sourceApplication};
inline const ApplicationStateLaunchOptionKey ApplicationStateLaunchOptionKey::kioskDownloads{
    Case::kioskDownloads};
inline const ApplicationStateLaunchOptionKey ApplicationStateLaunchOptionKey::location{
    Case::location};
inline const ApplicationStateLaunchOptionKey ApplicationStateLaunchOptionKey::vaultShareMetadata{
    Case::vaultShareMetadata};
inline const ApplicationStateLaunchOptionKey ApplicationStateLaunchOptionKey::bluetoothPeripherals{
    Case::bluetoothPeripherals};
inline const ApplicationStateLaunchOptionKey ApplicationStateLaunchOptionKey::bluetoothCentrals{
    Case::bluetoothCentrals};

}  // namespace kel

template <>
struct std::hash<kel::ApplicationStateLaunchOptionKey> {
    std::size_t operator()(const kel::ApplicationStateLaunchOptionKey& key) const noexcept {
        const auto index = static_cast<std::size_t>(key.kind());
        if (key.kind() != kel::ApplicationStateLaunchOptionKey::Case::unknown) {
            return index;
        }
        return std::hash<std::string>{}(key.unknownText()) ^ (index + 0x9e3779b97f4a7c15ULL);
    }
};

namespace kel {

// The launch options: values of any type under launch-option keys.
using ApplicationStateLaunchOptions = std::unordered_map<ApplicationStateLaunchOptionKey, std::any>;

}  // namespace kel
