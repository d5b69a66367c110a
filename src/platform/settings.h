#pragma once

#include <QString>
#include <QVariant>

// Keys of the per-user settings.
inline constexpr const char *kSettingsEmail = "kSettingsEmail";
inline constexpr const char *kSettingsPassword = "kSettingsPassword";
inline constexpr const char *kSettingsRememberMe = "kSettingsRememberMe";
inline constexpr const char *kSettingsLastFolderPath = "kSettingsLastFolderPath";
inline constexpr const char *DontAskToRemoveFilesKey = "DontAskToRemoveFilesKey";
// The CD drive's read offset in stereo samples (0 when unset), as rip tools
// publish it for each drive model.
inline constexpr const char *kSettingsReadOffset = "kSettingsReadOffset";

// The per-user settings store: an INI file under the XDG config folder. The
// file may hold the password, so it is kept readable by its owner only.
namespace Settings {

QVariant value(const char *key, const QVariant &defaultValue = {});
bool contains(const char *key);
QString string(const char *key); // null when absent
bool boolean(const char *key);   // false when absent
void setValue(const char *key, const QVariant &value);
void remove(const char *key);

QString fileName();

} // namespace Settings
