#pragma once
// A prepared SQLite statement for the content tables: bind, step, read, reset.

#include <QByteArray>
#include <QString>

#include <sqlite3.h>

#include <string>

namespace ContentSql {

class Statement
{
public:
    Statement(sqlite3* db, const char* sql)
    {
        if (sqlite3_prepare_v2(db, sql, -1, &m_stmt, nullptr) != SQLITE_OK)
            m_error = sqlite3_errmsg(db);
    }
    ~Statement() { sqlite3_finalize(m_stmt); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool Ok() const { return m_stmt != nullptr; }
    const std::string& Error() const { return m_error; }

    Statement& Text(int index, const QString& value) { return Utf8(index, value.toUtf8()); }
    Statement& Utf8(int index, const QByteArray& value)
    {
        sqlite3_bind_text(m_stmt, index, value.constData(), value.size(), SQLITE_TRANSIENT);
        return *this;
    }
    Statement& Int(int index, qint64 value)
    {
        sqlite3_bind_int64(m_stmt, index, value);
        return *this;
    }
    Statement& Real(int index, double value)
    {
        sqlite3_bind_double(m_stmt, index, value);
        return *this;
    }
    /// Ready for the next set of values.
    Statement& Reset()
    {
        sqlite3_reset(m_stmt);
        sqlite3_clear_bindings(m_stmt);
        return *this;
    }
    bool Row() { return m_stmt && sqlite3_step(m_stmt) == SQLITE_ROW; }
    bool Done() { return m_stmt && sqlite3_step(m_stmt) == SQLITE_DONE; }

    QString ColumnText(int column) const
    {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(m_stmt, column));
        return QString::fromUtf8(text ? text : "", sqlite3_column_bytes(m_stmt, column));
    }
    QByteArray ColumnUtf8(int column) const
    {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(m_stmt, column));
        return QByteArray(text ? text : "", sqlite3_column_bytes(m_stmt, column));
    }
    qint64 ColumnInt(int column) const { return sqlite3_column_int64(m_stmt, column); }
    double ColumnReal(int column) const { return sqlite3_column_double(m_stmt, column); }

private:
    sqlite3_stmt* m_stmt = nullptr;
    std::string m_error;
};

inline bool Exec(sqlite3* db, const char* sql, std::string& error)
{
    char* message = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &message) == SQLITE_OK)
        return true;
    error = message ? message : "SQLite error";
    sqlite3_free(message);
    return false;
}

} // namespace ContentSql
