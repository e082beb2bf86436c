#pragma once
// The engine plug-ins the user wants, kept as the "plugins" array of the configuration.

#include "json/Json.h"

namespace vlm {

class AppConfig;

/// Appends {"name": fileName + ".dll", "descr": description, "enabled": enabled}.
void addPluginEntry(json::Value& array, const char* fileName, const char* description, bool enabled,
                    json::Allocator& allocator);

/// Adds the built-in table when the configuration has no "plugins" member yet.
void seedPluginTable(AppConfig& config);

/// The entry whose "name" equals fileName exactly, or nullptr.
json::Value* findPluginEntry(AppConfig& config, const char* fileName);

}  // namespace vlm
