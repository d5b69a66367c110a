#pragma once

#include "core/error.h"

#include <QObject>
#include <QString>

#include <functional>
#include <optional>

// The password Remember Me keeps. It goes to the desktop keyring (the Secret
// Service or KWallet, through QtKeychain) where one runs on the session bus,
// and to the owner-only settings file only where none does. A password an
// earlier version left in the settings file still reads, and moves to the
// keyring once there is one. Which store is used is found out once per
// process, on first use, and logged in one line.
//
// Main thread only. Nothing here waits on the keyring: every call returns at
// once, the calls are carried out one after the other in the order made, and
// each answer comes to its handler on the main thread, a turn of the event
// loop later at the earliest. A handler whose context object is gone by then
// is not called.
namespace PasswordStore {

enum class Location { Undecided, Keyring, SettingsFile };

using ReadHandler = std::function<void(const std::optional<QString> &password, const OptionalError &error)>;
using DoneHandler = std::function<void(const OptionalError &error)>;

// The remembered password, or none.
void read(QObject *context, ReadHandler handler);
// Remembers password, replacing what was there.
void write(const QString &password, QObject *context = nullptr, DoneHandler handler = {});
// Forgets the password in whichever store holds it. The settings file's copy
// goes before this returns.
void remove(QObject *context = nullptr, DoneHandler handler = {});

// Where the password goes; Undecided until the first call has found out.
Location location();

} // namespace PasswordStore
