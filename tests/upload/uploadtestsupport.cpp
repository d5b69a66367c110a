#include "uploadtestsupport.h"

#include "protocol/clientfields.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <QTest>
#include <QThread>

AsyncUploadRequestConfiguration uploadConfiguration(const QString &uploadURL, const QString &path,
                                                    const Credentials &credentials)
{
    AsyncUploadRequestConfiguration c;
    c.uploadURL = uploadURL;
    c.filePath = path;
    c.sanitizedFilePath = path;
    c.userId = credentials.userId;
    c.userToken = credentials.token;
    c.clientName = ClientFields::client();
    c.deviceName = ClientFields::deviceName();
    c.userAgent = ClientFields::userAgent();
    c.versionString = ClientFields::version();
    return c;
}

bool writePatternFile(const QString &path, qint64 size, quint32 seed)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        return false;
    }
    QByteArray block(1 << 20, '\0');
    quint32 state = seed * 2654435761u + 1;
    qint64 left = size;
    while (left > 0) {
        const qint64 n = std::min<qint64>(left, block.size());
        for (qint64 i = 0; i < n; i += 4) {
            state = state * 1664525u + 1013904223u;
            std::memcpy(block.data() + i, &state, size_t(std::min<qint64>(4, n - i)));
        }
        if (file.write(block.constData(), n) != n) {
            return false;
        }
        left -= n;
    }
    return true;
}

QByteArray md5OfFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return {};
    }
    QCryptographicHash hash(QCryptographicHash::Md5);
    hash.addData(&file);
    return hash.result().toHex();
}

std::shared_ptr<AsyncUploadRequestOperation>
makeReportingOperation(const AsyncUploadRequestConfiguration &configuration, UploadReports *reports,
                       const AsyncUploadRequestOperation::Timeouts &timeouts)
{
    auto operation = std::make_shared<AsyncUploadRequestOperation>(configuration, timeouts);
    auto onMain = [reports] {
        reports->offMainThread |= QThread::currentThread() != QCoreApplication::instance()->thread();
    };
    QObject::connect(operation.get(), &AsyncUploadRequestOperation::ripProgressChanged, [reports, onMain](double f) {
        onMain();
        reports->rip << f;
        reports->events << QStringLiteral("rip");
    });
    QObject::connect(operation.get(), &AsyncUploadRequestOperation::fileLoadProgressChanged,
                     [reports, onMain](double f) {
                         onMain();
                         reports->progress << f;
                         reports->events << QStringLiteral("upload");
                     });
    QObject::connect(operation.get(), &AsyncUploadRequestOperation::fileLoadSucceeded, [reports, onMain] {
        onMain();
        ++reports->successes;
    });
    QObject::connect(operation.get(), &AsyncUploadRequestOperation::fileLoadFailed,
                     [reports, onMain](const Error &error) {
                         onMain();
                         reports->failures << error;
                     });
    return operation;
}

bool settle(OperationQueue &queue, const std::shared_ptr<AsyncUploadRequestOperation> &operation,
            const UploadReports &reports, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while ((reports.finals() == 0 || !operation->isFinished()) && timer.elapsed() < timeoutMs) {
        QTest::qWait(20);
    }
    queue.waitUntilAllOperationsAreFinished();
    QTest::qWait(300);
    return reports.finals() == 1;
}
