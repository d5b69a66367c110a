#pragma once

#include <QString>
#include <QStringList>

#include <optional>

// Walks a command's arguments: options as "--name", "--name=value" or
// "--name value", positional arguments, and "--", after which everything is
// positional (as is a lone "-").
class ArgumentScanner
{
public:
    explicit ArgumentScanner(QStringList args) : m_args(std::move(args)) {}

    // Moves to the next argument; false once they are all read.
    bool next();
    bool isOption() const { return m_isOption; }
    // The option's name without an inline value, or the positional argument.
    const QString &current() const { return m_current; }
    // The argument as it was given.
    const QString &raw() const { return m_args.at(m_index); }
    bool hasInlineValue() const { return m_inlineValue.has_value(); }
    // "--help" or "-h", with or without an inline value.
    bool isHelp() const
    {
        return m_isOption && (m_current == QLatin1String("--help") || m_current == QLatin1String("-h"));
    }
    // The option's value, inline or the next argument; none, with the reason
    // in *error, when there is none.
    std::optional<QString> takeValue(QString *error);

private:
    QStringList m_args;
    qsizetype m_index = -1;
    bool m_optionsEnded = false;
    bool m_isOption = false;
    QString m_current;
    std::optional<QString> m_inlineValue;
};
