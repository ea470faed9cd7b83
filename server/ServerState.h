#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include <sqlite3.h>

#include <map>
#include <mutex>
#include <string>

// The server's lasting state in SQLite: members with salted password hashes,
// access tokens with their expiry, refresh tokens.
class ServerState
{
public:
    ServerState() = default;
    ~ServerState();
    ServerState(const ServerState&) = delete;
    ServerState& operator=(const ServerState&) = delete;

    bool Open(const std::string& file, int tokenTtlSeconds, std::string& error);

    struct Member {
        QString id;
        QString email;
        QString nickName;
        QString firstName;
        QString lastName;
    };

    /// Creates the member, or returns the existing one with that e-mail.
    Member AddMember(const QString& email, const QString& password, const QString& nickName = QString());
    bool FindMember(const QString& email, Member& member);
    bool FindMemberById(const QString& memberId, Member& member);
    bool CheckPassword(const QString& email, const QString& password, Member& member);

    struct Tokens {
        QString access;
        QString refresh;
    };
    /// \a ttlSeconds below 0 takes the server's --token-ttl.
    Tokens IssueTokens(const QString& memberId, int ttlSeconds = -1);
    /// A new access token for a known refresh token; the refresh token stays valid.
    bool RefreshAccess(const QString& refreshToken, QString& access);

    enum class TokenState { Valid, Expired, Unknown };
    TokenState CheckAccess(const QString& access, QString& memberId);

    /// Runs \a work with the database under the state's lock; the service areas keep
    /// their own tables in the same file.
    template <class Work>
    auto WithDatabase(Work&& work)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return work(m_db);
    }

private:
    QString NewAccessToken(const QString& memberId, qint64 expires);
    // Reads one member by a column of the members table; the caller holds m_mutex.
    bool SelectMember(const char* column, const QString& value, Member& member);
    bool Exec(const char* sql);

    sqlite3* m_db = nullptr;
    std::mutex m_mutex;
    int m_tokenTtl = 3600;
    QByteArray m_secret;
};
