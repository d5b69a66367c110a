#pragma once

#include "session/uploadlistitem.h"

#include <QWidget>

#include <memory>

namespace Ui {
class UploadListItemViewController;
}

// One row of the Upload page (layout "UploadListItemViewController"): the
// file's path or track label, its percentage, and a bar along the bottom whose
// width is the row's width times the progress as reported.
class UploadListItemView : public QWidget
{
    Q_OBJECT

public:
    explicit UploadListItemView(QWidget *parent = nullptr);
    ~UploadListItemView() override;

    // Shows the row's state.
    void setItem(const UploadListItem &item);
    const UploadListItem &item() const { return m_item; }
    QString filePath() const { return m_item.filePath(); }

    QString pathText() const;
    QString progressText() const;
    // The bar's width: may exceed the row's for progress over 100.
    int progressWidth() const { return m_progressWidth; }

protected:
    void resizeEvent(QResizeEvent *event) override;

private:
    void layoutSubviews();

    std::unique_ptr<Ui::UploadListItemViewController> m_ui;
    UploadListItem m_item;
    int m_progressWidth = 0;
};
