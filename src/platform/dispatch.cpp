#include "platform/dispatch.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QThread>

bool isMainThread()
{
    return QCoreApplication::instance() && QThread::currentThread() == QCoreApplication::instance()->thread();
}

void dispatchAsyncMain(std::function<void()> fn)
{
    QMetaObject::invokeMethod(QCoreApplication::instance(), std::move(fn), Qt::QueuedConnection);
}

void dispatchSyncMain(const std::function<void()> &fn)
{
    if (isMainThread()) {
        fn();
        return;
    }
    QMetaObject::invokeMethod(
        QCoreApplication::instance(), [&fn] { fn(); }, Qt::BlockingQueuedConnection);
}
