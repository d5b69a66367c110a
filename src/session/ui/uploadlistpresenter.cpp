#include "session/ui/uploadlistpresenter.h"

#include "session/sessionmodel.h"
#include "session/ui/uploadlistitemview.h"

#include <QEvent>
#include <QWidget>

UploadListPresenter::UploadListPresenter(SessionModel *session, QWidget *area, QObject *parent)
    : QObject(parent), m_session(session), m_area(area)
{
    m_md5CheckProgressView = new UploadListItemView(area);
    m_md5CheckProgressView->setObjectName(QStringLiteral("md5CheckProgressView"));
    m_md5CheckProgressView->resize(area->width(), UploadListItem::kInitialHeight);
    m_md5CheckProgressView->setItem(session->md5CheckProgressItem());
    m_md5CheckProgressView->hide();
    area->installEventFilter(this);

    connect(session, &SessionModel::uploadListViewChanged, this, &UploadListPresenter::syncRows);
    connect(session, &SessionModel::uploadListViewLayoutChanged, this, &UploadListPresenter::layoutRows);
    connect(session, &SessionModel::uploadListItemChanged, this, &UploadListPresenter::updateRow);
    connect(session, &SessionModel::md5CheckProgressItemChanged, this,
            [this] { m_md5CheckProgressView->setItem(m_session->md5CheckProgressItem()); });
    syncRows();
}

UploadListPresenter::~UploadListPresenter()
{
    if (m_area) {
        m_area->removeEventFilter(this);
    }
}

void UploadListPresenter::clear()
{
    qDeleteAll(m_rowViews);
    m_rowViews.clear();
    m_md5CheckProgressView->hide();
}

bool UploadListPresenter::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == m_area && event->type() == QEvent::Resize) {
        layoutRows();
    }
    return QObject::eventFilter(watched, event);
}

void UploadListPresenter::syncRows()
{
    if (!m_area) {
        return;
    }
    // While paused the interrupted rows stay, marked.
    const QList<UploadListItem> &rows =
        m_session->uploadListItems().isEmpty() ? m_session->pausedListItems() : m_session->uploadListItems();
    // Rows come and go at both ends and in the middle; views are cheap, so
    // the list is matched by position and each view shows its row afresh.
    while (m_rowViews.size() > rows.size()) {
        delete m_rowViews.takeLast();
    }
    while (m_rowViews.size() < rows.size()) {
        auto *view = new UploadListItemView(m_area);
        view->resize(m_area->width(), UploadListItem::kInitialHeight);
        m_rowViews.append(view);
    }
    for (qsizetype i = 0; i < rows.size(); ++i) {
        m_rowViews[i]->setItem(rows[i]);
    }
    m_md5CheckProgressView->setItem(m_session->md5CheckProgressItem());
    layoutRows();
}

void UploadListPresenter::updateRow(const QString &filePath)
{
    const QList<UploadListItem> &rows = m_session->uploadListItems();
    if (rows.size() != m_rowViews.size()) {
        syncRows();
        return;
    }
    for (qsizetype i = 0; i < rows.size(); ++i) {
        if (rows[i].filePath() == filePath) {
            m_rowViews[i]->setItem(rows[i]);
            return;
        }
    }
}

void UploadListPresenter::layoutRows()
{
    if (!m_area) {
        return;
    }
    const int width = m_area->width();
    const bool checkRowOnScreen = m_session->isMd5CheckProgressItemOnScreen();
    if (checkRowOnScreen) {
        m_md5CheckProgressView->setGeometry(SessionModel::uploadListRowFrame(-1, true, width));
        m_md5CheckProgressView->show();
    } else {
        m_md5CheckProgressView->hide();
    }
    for (qsizetype i = 0; i < m_rowViews.size(); ++i) {
        m_rowViews[i]->setGeometry(SessionModel::uploadListRowFrame(i, checkRowOnScreen, width));
        m_rowViews[i]->show();
    }
}
