#include "protocol/blockingget.h"

#include "protocol/network.h"
#include "protocol/transporterror.h"

#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTimer>

#include <memory>

namespace BlockingGet {

Answer get(const QUrl &url, int timeoutMs, qint64 maxBytes)
{
    QNetworkAccessManager manager;
    const std::unique_ptr<QNetworkReply> reply(manager.get(Network::makeRequest(url, Network::lookupUserAgent())));
    QEventLoop loop;
    QTimer bound;
    bound.setSingleShot(true);
    Answer answer;
    QObject::connect(&bound, &QTimer::timeout, &loop, [&] {
        answer.failure = Answer::Failure::TimedOut;
        reply->abort();
    });
    QObject::connect(reply.get(), &QNetworkReply::downloadProgress, &loop, [&](qint64 received, qint64) {
        if (received > maxBytes) {
            answer.failure = Answer::Failure::TooLarge;
            reply->abort();
        }
    });
    QObject::connect(reply.get(), &QNetworkReply::finished, &loop, &QEventLoop::quit);
    bound.start(timeoutMs);
    if (!reply->isFinished()) {
        loop.exec();
    }
    bound.stop();

    answer.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    switch (answer.failure) {
    case Answer::Failure::TimedOut:
        answer.error =
            TransportError::errorForNetworkError(QNetworkReply::TimeoutError, QString()).localizedDescription();
        return answer;
    case Answer::Failure::TooLarge:
        answer.error = QStringLiteral("The answer is larger than %1 bytes.").arg(maxBytes);
        return answer;
    default:
        break;
    }
    if (const OptionalError error = TransportError::errorForReply(reply.get())) {
        answer.failure = Answer::Failure::Transport;
        answer.error = error->localizedDescription();
    } else if (answer.status >= 400) {
        answer.failure = Answer::Failure::HttpStatus;
        answer.error = reply->errorString();
    }
    answer.body = reply->readAll();
    return answer;
}

} // namespace BlockingGet
