#include "store.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRandomGenerator>
#include <QSaveFile>
#include <QSet>

QJsonObject StoredFile::toJson() const
{
    return QJsonObject{
        {"index", index},
        {"md5", md5},
        {"crc32", qint64(crc32)},
        {"size", size},
        {"stored_path", storedPath},
        {"file_name", fileName},
        {"file_path", filePath},
        {"content_type", contentType},
        {"client", client},
        {"device_name", deviceName},
        {"user_agent", userAgent},
        {"version", version},
        {"playlist_name", playlistName},
        {"playlist_order", playlistOrder},
        {"tag_name", tagName},
        {"reupload", reupload},
        {"uploaded_at", uploadedAt},
    };
}

StoredFile StoredFile::fromJson(const QJsonObject &object)
{
    StoredFile file;
    file.index = object.value("index").toInteger();
    file.md5 = object.value("md5").toString();
    file.crc32 = quint32(object.value("crc32").toInteger());
    file.size = object.value("size").toInteger();
    file.storedPath = object.value("stored_path").toString();
    file.fileName = object.value("file_name").toString();
    file.filePath = object.value("file_path").toString();
    file.contentType = object.value("content_type").toString();
    file.client = object.value("client").toString();
    file.deviceName = object.value("device_name").toString();
    file.userAgent = object.value("user_agent").toString();
    file.version = object.value("version").toString();
    file.playlistName = object.value("playlist_name").toString();
    file.playlistOrder = object.value("playlist_order").toString();
    file.tagName = object.value("tag_name").toString();
    file.reupload = object.value("reupload").toBool();
    file.uploadedAt = object.value("uploaded_at").toInteger();
    return file;
}

Store::Store(QString dataDirectory) : m_dataDirectory(std::move(dataDirectory)) {}

QString Store::incomingDirectory() const
{
    return m_dataDirectory + "/incoming";
}

bool Store::open(QString *error)
{
    std::lock_guard lock(m_mutex);
    if (!QDir().mkpath(m_dataDirectory) || !QDir().mkpath(incomingDirectory())) {
        *error = "cannot create the data folder " + m_dataDirectory;
        return false;
    }
    // Uploads that were being received when the server last stopped.
    QDir incoming(incomingDirectory());
    for (const QString &name : incoming.entryList(QDir::Files | QDir::Hidden))
        incoming.remove(name);

    bool compact = false;
    QFile file(m_dataDirectory + "/accounts.json");
    if (file.exists()) {
        if (!file.open(QIODevice::ReadOnly)) {
            *error = "cannot read " + file.fileName() + ": " + file.errorString();
            return false;
        }
        QJsonParseError parseError;
        QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &parseError);
        if (!document.isObject()) {
            *error = file.fileName() + " is not valid: " + parseError.errorString();
            return false;
        }
        m_nextUserId = document.object().value("next_user_id").toInteger(1001);
        for (const QJsonValue &value : document.object().value("accounts").toArray()) {
            QJsonObject object = value.toObject();
            Account account;
            account.email = object.value("email").toString();
            account.password = object.value("password").toString();
            account.userId = object.value("user_id").toInteger();
            account.token = object.value("token").toString();
            // Libraries saved by older versions sit in the accounts file.
            for (const QJsonValue &f : object.value("files").toArray())
                account.files.append(StoredFile::fromJson(f.toObject()));
            compact = compact || !account.files.isEmpty();
            m_accounts.append(account);
            m_nextUserId = std::max(m_nextUserId, account.userId + 1);
        }
    }
    QFile journal(journalPath());
    if (journal.open(QIODevice::ReadOnly)) {
        while (!journal.atEnd()) {
            // A line cut short by a kill is skipped; its upload was never answered.
            const QJsonObject line = QJsonDocument::fromJson(journal.readLine()).object();
            const qint64 userId = line.value("user_id").toInteger();
            for (Account &account : m_accounts) {
                if (account.userId == userId && line.value("file").isObject())
                    account.files.append(StoredFile::fromJson(line.value("file").toObject()));
            }
        }
    }
    if (compact && !rewriteJournalLocked(error))
        return false;
    for (const Account &account : m_accounts) {
        QHash<QString, qsizetype> &index = m_md5Index[account.userId];
        for (qsizetype i = 0; i < account.files.size(); ++i)
            index.insert(account.files.at(i).md5, i);
    }
    if (!findLocked(kDemoEmail)) {
        Account demo;
        demo.email = kDemoEmail;
        demo.password = kDemoPassword;
        demo.userId = m_nextUserId++;
        m_accounts.append(demo);
    }
    return saveLocked(error);
}

QString Store::journalPath() const
{
    return m_dataDirectory + "/library.jsonl";
}

QByteArray Store::journalLine(qint64 userId, const StoredFile &file)
{
    return QJsonDocument(QJsonObject{{"user_id", userId}, {"file", file.toJson()}}).toJson(QJsonDocument::Compact) +
           '\n';
}

bool Store::rewriteJournalLocked(QString *error) const
{
    QSaveFile file(journalPath());
    if (!file.open(QIODevice::WriteOnly)) {
        if (error)
            *error = file.errorString();
        return false;
    }
    for (const Account &account : m_accounts) {
        for (const StoredFile &stored : account.files)
            file.write(journalLine(account.userId, stored));
    }
    if (!file.commit()) {
        if (error)
            *error = file.errorString();
        return false;
    }
    return true;
}

bool Store::saveLocked(QString *error) const
{
    // The libraries are in the journal, appended to one line per upload, so a
    // long run costs the same per file at the end as at the start.
    QJsonArray accounts;
    for (const Account &account : m_accounts) {
        accounts.append(QJsonObject{{"email", account.email},
                                    {"password", account.password},
                                    {"user_id", account.userId},
                                    {"token", account.token}});
    }
    QSaveFile file(m_dataDirectory + "/accounts.json");
    if (!file.open(QIODevice::WriteOnly)) {
        if (error)
            *error = file.errorString();
        return false;
    }
    QJsonObject root{{"next_user_id", m_nextUserId}, {"accounts", accounts}};
    file.write(QJsonDocument(root).toJson());
    if (!file.commit()) {
        if (error)
            *error = file.errorString();
        return false;
    }
    return true;
}

Account *Store::findLocked(const QString &email)
{
    for (Account &account : m_accounts) {
        if (account.email.compare(email, Qt::CaseInsensitive) == 0)
            return &account;
    }
    return nullptr;
}

QString Store::newToken()
{
    QByteArray bytes(16, Qt::Uninitialized);
    QRandomGenerator::system()->fillRange(reinterpret_cast<quint32 *>(bytes.data()), bytes.size() / 4);
    return QString::fromLatin1(bytes.toHex());
}

std::optional<Account> Store::accountByEmail(const QString &email) const
{
    std::lock_guard lock(m_mutex);
    if (Account *account = const_cast<Store *>(this)->findLocked(email))
        return *account;
    return std::nullopt;
}

std::optional<Account> Store::accountByUserId(qint64 userId) const
{
    std::lock_guard lock(m_mutex);
    for (const Account &account : m_accounts) {
        if (account.userId == userId) {
            // Without the library: a copy that shares it would make the next
            // upload copy the whole list.
            Account credentials = account;
            credentials.files.clear();
            return credentials;
        }
    }
    return std::nullopt;
}

std::optional<Account> Store::authenticate(const QString &userId, const QString &token) const
{
    bool ok = false;
    qint64 id = userId.toLongLong(&ok);
    if (!ok || token.isEmpty())
        return std::nullopt;
    std::optional<Account> account = accountByUserId(id);
    if (!account || account->token.isEmpty() || account->token != token)
        return std::nullopt;
    return account;
}

Account Store::createAccount(const QString &email, const QString &password)
{
    std::lock_guard lock(m_mutex);
    Account *account = findLocked(email);
    if (!account) {
        Account created;
        created.email = email;
        created.userId = m_nextUserId++;
        m_accounts.append(created);
        account = &m_accounts.last();
    }
    account->password = password;
    saveLocked(nullptr);
    return *account;
}

std::optional<Account> Store::signIn(const QString &email)
{
    std::lock_guard lock(m_mutex);
    Account *account = findLocked(email);
    if (!account)
        return std::nullopt;
    if (account->token.isEmpty()) {
        account->token = newToken();
        saveLocked(nullptr);
    }
    return *account;
}

bool Store::revokeToken(const QString &email)
{
    std::lock_guard lock(m_mutex);
    Account *account = findLocked(email);
    if (!account)
        return false;
    account->token.clear();
    saveLocked(nullptr);
    return true;
}

QStringList Store::md5List(qint64 userId) const
{
    std::lock_guard lock(m_mutex);
    QStringList list;
    for (const Account &account : m_accounts) {
        if (account.userId != userId)
            continue;
        QSet<QString> seen;
        for (const StoredFile &file : account.files) {
            if (!seen.contains(file.md5)) {
                seen.insert(file.md5);
                list.append(file.md5);
            }
        }
    }
    return list;
}

Store::AddResult Store::addFile(qint64 userId, const QString &temporaryPath, StoredFile &file, bool allowDuplicate,
                                QString *error)
{
    std::lock_guard lock(m_mutex);
    Account *account = nullptr;
    for (Account &candidate : m_accounts) {
        if (candidate.userId == userId)
            account = &candidate;
    }
    if (!account) {
        QFile::remove(temporaryPath);
        return AddResult::NoAccount;
    }
    QHash<QString, qsizetype> &index = m_md5Index[userId];
    if (!allowDuplicate) {
        if (const auto existing = index.constFind(file.md5); existing != index.constEnd()) {
            QFile::remove(temporaryPath);
            file = account->files.at(*existing);
            return AddResult::Duplicate;
        }
    }
    const QString folder = m_dataDirectory + "/files/" + QString::number(userId);
    file.index = account->files.size();
    file.storedPath = folder + "/" + QString::number(file.index) + "-" + file.md5;
    if (file.uploadedAt == 0)
        file.uploadedAt = QDateTime::currentSecsSinceEpoch();
    QFile::remove(file.storedPath);
    if (!QDir().mkpath(folder) || !QFile::rename(temporaryPath, file.storedPath)) {
        QFile::remove(temporaryPath);
        *error = "cannot store the file in " + folder;
        return AddResult::Failed;
    }
    QFile journal(journalPath());
    const QByteArray line = journalLine(userId, file);
    if (!journal.open(QIODevice::WriteOnly | QIODevice::Append) || journal.write(line) != line.size() ||
        !journal.flush()) {
        *error = "cannot record the file: " + journal.errorString();
        QFile::remove(file.storedPath);
        return AddResult::Failed;
    }
    account->files.append(file);
    if (!index.contains(file.md5))
        index.insert(file.md5, account->files.size() - 1);
    return AddResult::Stored;
}

QList<StoredFile> Store::files(qint64 userId) const
{
    std::lock_guard lock(m_mutex);
    for (const Account &account : m_accounts) {
        if (account.userId == userId)
            return account.files;
    }
    return {};
}
