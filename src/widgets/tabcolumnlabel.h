#pragma once

#include <QLabel>

// A one-line label whose text is "Name:<tabs>value": the value starts at a
// fixed column, whatever the number of tabs, so that a stack of such labels
// lines up in any font. text() stays exactly as set.
class TabColumnLabel : public QLabel
{
    Q_OBJECT

public:
    explicit TabColumnLabel(QWidget *parent = nullptr);

    // Where values start, from the left edge; by default just past the
    // widest of the names given.
    void setColumn(int column);
    int column() const { return m_column; }
    void fitColumnTo(const QStringList &names);

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    int valueStart(const QString &name) const;

    int m_column = 0;
};
