#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

#include <mutex>
#include <optional>

// One track of an account's library: the uploaded file and the form fields it came with.
struct StoredFile
{
    qint64 index = 0; // position in the library, from 0, in upload order
    QString md5;
    quint32 crc32 = 0;
    qint64 size = 0;
    QString storedPath; // absolute path of the bytes on disk
    QString fileName;   // the part's filename, percent-decoded
    QString filePath;   // the `file_path` field
    QString contentType;
    QString client;
    QString deviceName;
    QString userAgent;
    QString version;
    QString playlistName;
    QString playlistOrder;
    QString tagName;
    bool reupload = false;
    qint64 uploadedAt = 0; // seconds since 1970

    QJsonObject toJson() const;
    static StoredFile fromJson(const QJsonObject &object);
};

struct Account
{
    QString email;
    QString password;
    qint64 userId = 0;
    QString token; // empty after a revocation until the next sign-in
    QList<StoredFile> files;
};

// The accounts, kept in `<data>/accounts.json` (rewritten atomically on every change), their
// libraries in `<data>/library.jsonl` (one line appended per stored file), and the tracks'
// bytes under `<data>/files/<user id>/`. Thread-safe: every
// member takes the one lock, and callers get copies.
class Store
{
public:
    explicit Store(QString dataDirectory);

    // Loads the saved state and makes sure the demo account exists.
    bool open(QString *error);

    QString dataDirectory() const { return m_dataDirectory; }
    QString incomingDirectory() const;

    std::optional<Account> accountByEmail(const QString &email) const;
    // The account without its library (files() has it).
    std::optional<Account> accountByUserId(qint64 userId) const;
    // The account (without its library) whose current token is `token`, for that user id.
    std::optional<Account> authenticate(const QString &userId, const QString &token) const;

    // Creates the account, or changes its password when it exists. Returns it.
    Account createAccount(const QString &email, const QString &password);
    // Gives the account a token unless it has one, and returns the account.
    std::optional<Account> signIn(const QString &email);
    bool revokeToken(const QString &email);

    QStringList md5List(qint64 userId) const;

    enum class AddResult { Stored, Duplicate, NoAccount, Failed };
    // Moves the finished upload at `temporaryPath` into the account's library, unless
    // `allowDuplicate` is false and a file with the same digest is already there (the
    // temporary file is removed then). Fills in index and storedPath.
    AddResult addFile(qint64 userId, const QString &temporaryPath, StoredFile &file, bool allowDuplicate,
                      QString *error);

    QList<StoredFile> files(qint64 userId) const;

    static constexpr const char *kDemoEmail = "demo@lyrabox.test";
    static constexpr const char *kDemoPassword = "demo";

private:
    bool saveLocked(QString *error) const;
    QString journalPath() const;
    static QByteArray journalLine(qint64 userId, const StoredFile &file);
    bool rewriteJournalLocked(QString *error) const;
    Account *findLocked(const QString &email);
    static QString newToken();

    QString m_dataDirectory;
    mutable std::mutex m_mutex;
    QList<Account> m_accounts;
    qint64 m_nextUserId = 1001;
    // Per user id: digest -> position of its first file in the library.
    QHash<qint64, QHash<QString, qsizetype>> m_md5Index;
};
