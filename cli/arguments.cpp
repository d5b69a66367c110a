#include "cli/arguments.h"

bool ArgumentScanner::next()
{
    while (++m_index < m_args.size()) {
        m_current = m_args.at(m_index);
        m_inlineValue.reset();
        m_isOption = !m_optionsEnded && m_current.startsWith(QLatin1Char('-')) && m_current != QLatin1String("-");
        if (m_isOption && m_current == QLatin1String("--")) {
            m_optionsEnded = true;
            continue;
        }
        if (m_isOption) {
            if (const qsizetype eq = m_current.indexOf(QLatin1Char('=')); eq > 0) {
                m_inlineValue = m_current.mid(eq + 1);
                m_current.truncate(eq);
            }
        }
        return true;
    }
    return false;
}

std::optional<QString> ArgumentScanner::takeValue(QString *error)
{
    if (m_inlineValue) {
        return m_inlineValue;
    }
    if (m_index + 1 >= m_args.size()) {
        *error = QStringLiteral("%1 needs a value").arg(m_current);
        return std::nullopt;
    }
    return m_args.at(++m_index);
}
