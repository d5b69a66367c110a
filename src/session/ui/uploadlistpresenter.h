#pragma once

#include <QList>
#include <QObject>
#include <QPointer>

class SessionModel;
class UploadListItemView;
class QWidget;

// Shows the session's upload rows in the Upload page's row area: one
// UploadListItemView per file in flight, 30 high and 32 apart from the top,
// under the digest check's row while that one shows.
class UploadListPresenter : public QObject
{
    Q_OBJECT

public:
    UploadListPresenter(SessionModel *session, QWidget *area, QObject *parent = nullptr);
    ~UploadListPresenter() override;

    // The row views in the session's order, and the check row's view.
    const QList<UploadListItemView *> &rowViews() const { return m_rowViews; }
    UploadListItemView *md5CheckProgressView() const { return m_md5CheckProgressView; }

    // Takes every row off the screen.
    void clear();

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void syncRows();
    void updateRow(const QString &filePath);
    void layoutRows();

    SessionModel *m_session;
    QPointer<QWidget> m_area;
    QList<UploadListItemView *> m_rowViews;
    UploadListItemView *m_md5CheckProgressView = nullptr;
};
