#pragma once

#include <QDialog>
#include <QStringList>

class QListWidget;

// The disc chooser: one column of the disc volumes' names, the first row
// selected, so a choice always exists. Shown window-modal over the main
// window; ends with 1 (Upload) or 0 (Cancel).
class AudioCDChooserController : public QDialog
{
    Q_OBJECT

public:
    explicit AudioCDChooserController(QWidget *parent = nullptr);

    // Replaces the list and reloads the column, keeping a row selected.
    void setDisks(const QStringList &disks);
    QStringList disks() const { return m_disks; }
    // The path at the selected row.
    QString selectedDisk() const;
    QListWidget *browser() const { return m_browser; }

    void uploadClicked() { done(1); }
    void cancelClicked() { done(0); }

private:
    QStringList m_disks;
    QListWidget *m_browser = nullptr;
};
