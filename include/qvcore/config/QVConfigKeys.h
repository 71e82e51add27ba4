#pragma once

namespace qv::QVConfigKeys {

// Keys of the core's configuration (the dictionary of the module "QVCore").
// The typed accessors of QVConfigService read them with a default; several
// callers read the same keys raw, where a missing item means false or 0.
inline constexpr char kManualPostEnabled[] = "ManualPostEnabled";
inline constexpr char kCompressPostMessage[] = "CompressPostMessage";
inline constexpr char kCachingLevel[] = "CachingLevel";
inline constexpr char kDoPostOnIntervals[] = "DoPostOnIntervals";
inline constexpr char kHasToPersistLocalCache[] = "HasToPersistLocalCache";
inline constexpr char kLoggingLevel[] = "LoggingLevel";
inline constexpr char kPostMessageLevelCellular[] = "PostMessageLevelCellular";
inline constexpr char kPostMessageLevelWiFi[] = "PostMessageLevelWiFi";
inline constexpr char kPostMessageTimeIntervals[] = "PostMessageTimeIntervals";
inline constexpr char kDoPostAppComesFromBackground[] = "DoPostAppComesFromBackground";
inline constexpr char kDoPostAppGoesToBackground[] = "DoPostAppGoesToBackground";
inline constexpr char kDoPostAppGoesToClose[] = "DoPostAppGoesToClose";
inline constexpr char kDoPostAppIsLaunched[] = "DoPostAppIsLaunched";
inline constexpr char kDoPostOnScreenChange[] = "DoPostOnScreenChange";
inline constexpr char kDynamicConfigurationEnabled[] = "DynamicConfigurationEnabled";
inline constexpr char kCachedFileMaxBytesSize[] = "CachedFileMaxBytesSize";
inline constexpr char kPostMessageMaxBytesSize[] = "PostMessageMaxBytesSize";
inline constexpr char kPostMessageTimeout[] = "PostMessageTimeout";
inline constexpr char kCriticalBatteryLevel[] = "CriticalBatteryLevel";
inline constexpr char kLibraryVersion[] = "LibraryVersion";
inline constexpr char kMessageVersion[] = "MessageVersion";
inline constexpr char kTurnOffCorrectOrientationUpdates[] = "TurnOffCorrectOrientationUpdates";
inline constexpr char kDefaultOrientation[] = "DefaultOrientation";

// Keys of each module's own configuration, read for the module that owns a
// queue. Both are read raw: no item means no URL, and not URL-encoded.
inline constexpr char kPostMessageUrl[] = "PostMessageUrl";
inline constexpr char kURLEncoded[] = "URLEncoded";

// File names in a settings bundle, each preceded by the bundle's prefix.
inline constexpr char kBasicConfigFile[] = "BasicConfig.plist";
inline constexpr char kAdvancedConfigFile[] = "AdvancedConfig.json";
inline constexpr char kLayoutConfigFile[] = "LayoutConfig.json";

}  // namespace qv::QVConfigKeys
