#include "platform/passwordstore.h"

#include "core/logger.h"
#include "core/paths.h"
#include "platform/settings.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QPointer>
#include <QSet>

#include <qt6keychain/keychain.h>

#include <deque>

namespace PasswordStore {
namespace {

const char *const kKeyringKey = "password";
// A keyring that does not answer the bus within this is taken as absent.
constexpr int kProbeTimeoutMs = 5000;

// Bus names of the keyrings QtKeychain can talk to.
bool isKeyringName(const QString &name)
{
    return name == QLatin1String("org.freedesktop.secrets") || name == QLatin1String("org.kde.kwalletd5") ||
           name == QLatin1String("org.kde.kwalletd6");
}

// Runs the calls one at a time, so a write and the remove that follows it
// reach the keyring in that order, and the first call waits for the probe.
class Store : public QObject
{
public:
    using Done = std::function<void()>;
    using Task = std::function<void(Done)>;

    static Store &shared()
    {
        static auto *store = new Store;
        return *store;
    }

    Location location() const { return m_location; }

    void enqueue(Task task)
    {
        if (m_location == Location::Undecided && !m_probeQueued) {
            m_probeQueued = true;
            m_tasks.emplace_back([this](Done done) { probe(std::move(done)); });
        }
        m_tasks.push_back(std::move(task));
        // Always from the event loop, never inside the caller.
        QMetaObject::invokeMethod(
            this, [this] { pump(); }, Qt::QueuedConnection);
    }

    // Settles where the password lives and says so once.
    void settle(Location location, const QString &why)
    {
        m_location = location;
        if (m_announced) {
            return;
        }
        m_announced = true;
        Logger::log(
            location == Location::Keyring
                ? QStringLiteral("Password store: the desktop keyring (%1)").arg(why)
                : QStringLiteral("Password store: the settings file, readable by its owner only (%1)").arg(why));
    }

    // The keyring answered, and not with "no backend": it is the store.
    void keyringAnswered() { settle(Location::Keyring, m_keyringName); }

    // QtKeychain found no way to the keyring the bus offers.
    void keyringUnusable(const QString &reason) { settle(Location::SettingsFile, reason); }

private:
    void pump()
    {
        if (m_busy || m_tasks.empty()) {
            return;
        }
        m_busy = true;
        Task task = std::move(m_tasks.front());
        m_tasks.pop_front();
        task([this] {
            m_busy = false;
            QMetaObject::invokeMethod(
                this, [this] { pump(); }, Qt::QueuedConnection);
        });
    }

    // Looks for a keyring that runs on the session bus or that the bus can
    // start, without waiting on the bus.
    void probe(Done done)
    {
        QDBusConnection bus = QDBusConnection::sessionBus();
        if (!bus.isConnected()) {
            settle(Location::SettingsFile, QStringLiteral("no session bus"));
            done();
            return;
        }
        auto names = std::make_shared<QSet<QString>>();
        auto pending = std::make_shared<int>(2);
        auto collect = [this, names, pending, done = std::move(done)](QDBusPendingCallWatcher *watcher) {
            const QDBusPendingReply<QStringList> reply = *watcher;
            watcher->deleteLater();
            if (!reply.isError()) {
                for (const QString &name : reply.value()) {
                    names->insert(name);
                }
            }
            if (--*pending > 0) {
                return;
            }
            for (const QString &name : *names) {
                if (isKeyringName(name)) {
                    m_keyringName = name;
                    // Logged once a keyring call has shown it can be used.
                    m_location = Location::Keyring;
                    done();
                    return;
                }
            }
            settle(Location::SettingsFile, QStringLiteral("no keyring on the session bus"));
            done();
        };
        for (const char *method : {"ListNames", "ListActivatableNames"}) {
            const QDBusMessage call = QDBusMessage::createMethodCall(
                QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"),
                QStringLiteral("org.freedesktop.DBus"), QLatin1String(method));
            auto *watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, kProbeTimeoutMs), this);
            connect(watcher, &QDBusPendingCallWatcher::finished, this, collect);
        }
    }

    Location m_location = Location::Undecided;
    QString m_keyringName;
    bool m_probeQueued = false;
    bool m_announced = false;
    bool m_busy = false;
    std::deque<Task> m_tasks;
};

// Starts a keyring job and hands its end to finished on the main thread.
template <typename Job> void startJob(std::function<void(Job *)> prepare, std::function<void(Job *)> finished)
{
    auto *job = new Job(Paths::applicationIdentifier());
    job->setKey(QLatin1String(kKeyringKey));
    job->setAutoDelete(true);
    if (prepare) {
        prepare(job);
    }
    QObject::connect(job, &QKeychain::Job::finished, &Store::shared(),
                     [finished](QKeychain::Job *ended) { finished(static_cast<Job *>(ended)); });
    job->start();
}

// Who hears the answer: the caller's object, or the store for a caller that
// gave none. Null once that object is gone.
QPointer<QObject> replyTo(QObject *context)
{
    return context ? context : &Store::shared();
}

// Calls handler with args in the next turn of the event loop, unless its
// object went away.
template <typename Handler, typename... Args>
void answer(const QPointer<QObject> &context, Handler handler, Args... args)
{
    if (!handler || !context) {
        return;
    }
    QMetaObject::invokeMethod(
        context.data(),
        [context, handler = std::move(handler), args...] {
            if (context) {
                handler(args...);
            }
        },
        Qt::QueuedConnection);
}

std::optional<QString> settingsFilePassword()
{
    const QString stored = Settings::string(kSettingsPassword);
    return stored.isNull() ? std::nullopt : std::optional<QString>(stored);
}

Error keyringError(const QString &what, const QKeychain::Job *job)
{
    return Error::errorWithMessage(QStringLiteral("%1: %2").arg(what, job->errorString()));
}

void writeToKeyring(const QString &password, std::function<void(const OptionalError &)> finished)
{
    startJob<QKeychain::WritePasswordJob>(
        [password](QKeychain::WritePasswordJob *job) { job->setTextData(password); },
        [password, finished = std::move(finished)](QKeychain::WritePasswordJob *job) {
            Store &store = Store::shared();
            if (job->error() == QKeychain::NoBackendAvailable) {
                store.keyringUnusable(job->errorString());
                Settings::setValue(kSettingsPassword, password);
                finished(std::nullopt);
                return;
            }
            store.keyringAnswered();
            if (job->error() != QKeychain::NoError) {
                finished(keyringError(QStringLiteral("The password could not be kept in the desktop keyring"), job));
                return;
            }
            // One copy only, and not the readable one.
            if (Settings::contains(kSettingsPassword)) {
                Settings::remove(kSettingsPassword);
            }
            finished(std::nullopt);
        });
}

} // namespace

Location location()
{
    return Store::shared().location();
}

void read(QObject *context, ReadHandler handler)
{
    Store &store = Store::shared();
    store.enqueue([context = replyTo(context), handler = std::move(handler), &store](const Store::Done &done) {
        const std::optional<QString> fromFile = settingsFilePassword();
        if (store.location() == Location::SettingsFile) {
            answer(context, handler, fromFile, OptionalError());
            done();
            return;
        }
        if (fromFile) {
            // Left by an earlier version: it signs in as it did, and moves.
            answer(context, handler, fromFile, OptionalError());
            writeToKeyring(*fromFile, [done](const OptionalError &error) {
                if (!error && Store::shared().location() == Location::Keyring) {
                    Logger::log(QStringLiteral("Moved the remembered password from the settings file to the "
                                               "desktop keyring"));
                } else if (error) {
                    Logger::log(error->localizedDescription());
                }
                done();
            });
            return;
        }
        startJob<QKeychain::ReadPasswordJob>({}, [context, handler, done, &store](QKeychain::ReadPasswordJob *job) {
            switch (job->error()) {
            case QKeychain::NoError:
                store.keyringAnswered();
                answer(context, handler, std::optional<QString>(job->textData()), OptionalError());
                break;
            case QKeychain::EntryNotFound:
                store.keyringAnswered();
                answer(context, handler, std::optional<QString>(), OptionalError());
                break;
            case QKeychain::NoBackendAvailable:
                // The settings file had none either.
                store.keyringUnusable(job->errorString());
                answer(context, handler, std::optional<QString>(), OptionalError());
                break;
            default:
                store.keyringAnswered();
                answer(context, handler, std::optional<QString>(),
                       OptionalError(keyringError(
                           QStringLiteral("The remembered password could not be read from the desktop keyring"), job)));
                break;
            }
            done();
        });
    });
}

void write(const QString &password, QObject *context, DoneHandler handler)
{
    Store &store = Store::shared();
    store.enqueue(
        [password, context = replyTo(context), handler = std::move(handler), &store](const Store::Done &done) {
            if (store.location() == Location::SettingsFile) {
                Settings::setValue(kSettingsPassword, password);
                answer(context, handler, OptionalError());
                done();
                return;
            }
            writeToKeyring(password, [context, handler, done](const OptionalError &error) {
                answer(context, handler, error);
                done();
            });
        });
}

void remove(QObject *context, DoneHandler handler)
{
    if (Settings::contains(kSettingsPassword)) {
        Settings::remove(kSettingsPassword);
    }
    Store &store = Store::shared();
    store.enqueue([context = replyTo(context), handler = std::move(handler), &store](const Store::Done &done) {
        // A password written while this waited its turn is gone too.
        if (Settings::contains(kSettingsPassword)) {
            Settings::remove(kSettingsPassword);
        }
        if (store.location() == Location::SettingsFile) {
            answer(context, handler, OptionalError());
            done();
            return;
        }
        startJob<QKeychain::DeletePasswordJob>({}, [context, handler, done, &store](QKeychain::DeletePasswordJob *job) {
            OptionalError error;
            switch (job->error()) {
            case QKeychain::NoError:
            case QKeychain::EntryNotFound:
                store.keyringAnswered();
                break;
            case QKeychain::NoBackendAvailable:
                store.keyringUnusable(job->errorString());
                break;
            default:
                store.keyringAnswered();
                error = keyringError(
                    QStringLiteral("The remembered password could not be removed from the desktop keyring"), job);
                break;
            }
            answer(context, handler, error);
            done();
        });
    });
}

} // namespace PasswordStore
