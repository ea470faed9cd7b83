#include "QMMemberWebService.h"

#include "QMMemberWebService/Cache.h"
#include "QMMemberWebService/Cipher.h"
#include "ServerFixture.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QtTest>

#include <algorithm>

using ProductIDList = QMCache::ProductIDList;
Q_DECLARE_METATYPE(ProductIDList)

class TestCache : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_folder;

    void WriteRaw(const QString& name, const QByteArray& bytes)
    {
        QFile file(m_folder + name);
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(bytes);
    }

private slots:
    void init()
    {
        m_folder = m_dir.path() + "/cache/";
        CQMMemberWebService::SetCacheFolderPath(m_folder);
        QDir(m_folder).removeRecursively();
    }

    void defaultFolder()
    {
        CQMMemberWebService::SetCacheFolderPath(QString());
        const QString expected =
            QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + "/Quillmarsh/QMLCache/";
        QCOMPARE(CQMMemberWebService::GetCacheFolderPath(), expected);
        QCOMPARE(CQMMemberWebService::GetCacheFolderPath(), expected);
    }

    void roundTrip_data()
    {
        QTest::addColumn<QString>("text");
        QTest::newRow("json") << "{\"apiStatus\":2,\"result\":{\"status\":2,\"data\":{\"Email\":\"a@b.c\"}}}";
        QTest::newRow("non-Latin") << QString::fromUtf8("Grüße 世界 Привет \xF0\x9F\x98\x80");
        QTest::newRow("long") << QString("0123456789").repeated(20000);
    }
    void roundTrip()
    {
        QFETCH(QString, text);
        QVERIFY(QMCache::Create(text, "MemberInfo.json"));
        QFile file(m_folder + "MemberInfo.json");
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray body = file.readAll();
        QVERIFY(std::all_of(body.begin(), body.end(), [](char c) { return isdigit(c) || (c >= 'A' && c <= 'F'); }));
        QCOMPARE(body.size(), text.toUtf8().size() * 2);
        QCOMPARE(QMCache::Content("MemberInfo.json"), text);
        // Rewriting replaces the file whole and leaves nothing beside it.
        QVERIFY(QMCache::Create("second", "MemberInfo.json"));
        QCOMPARE(QMCache::Content("MemberInfo.json"), QStringLiteral("second"));
        QCOMPARE(QDir(m_folder).entryList(QDir::Files), QStringList{"MemberInfo.json"});
    }

    void rawTextFallback_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("content"); // empty: the raw body comes back
        const QByteArray hex = QMCipher::ToUpperHex(QMCipher::Rc4("{\"a\":\"\xC3\xBC\"}", QMCipher::CacheKey()));
        QTest::newRow("lowercase hex") << hex.toLower() << "";
        QTest::newRow("odd length") << QByteArray("ABC") << "";
        QTest::newRow("plain json") << QByteArray("{\"status\":2}") << "";
        QTest::newRow("'@' is 16") << QByteArray(hex).replace(0, 1, "@") << "";
        QByteArray punctuated = hex;
        for (char& c : punctuated)
            if (c >= 'A' && c <= 'F')
                c = static_cast<char>(c - 'A' + ':');
        QTest::newRow("':' to '?' as 10 to 15") << punctuated << QString::fromUtf8("{\"a\":\"\xC3\xBC\"}");
    }
    void rawTextFallback()
    {
        QFETCH(QByteArray, body);
        QFETCH(QString, content);
        QDir().mkpath(m_folder);
        WriteRaw("ProductInfoList.json", body);
        QCOMPARE(QMCache::Content("ProductInfoList.json"), content.isEmpty() ? QString::fromUtf8(body) : content);
    }

    void existence()
    {
        QDir().mkpath(m_folder);
        QVERIFY(!QMCache::Exists(""));
        QVERIFY(!QMCache::Exists("MemberInfo.json"));
        QVERIFY(QMCache::Clear("MemberInfo.json")); // nothing to delete is success
        QVERIFY(!QMCache::Expired("MemberInfo.json"));
        QVERIFY(QMCache::Content("MemberInfo.json").isEmpty());
        QVERIFY(QDir(m_folder).mkpath("Sub/Deeper"));
        WriteRaw("Sub/Deeper/file", "x");
        QVERIFY(QMCache::ClearFolder("Sub"));
        QVERIFY(!QDir(m_folder + "Sub").exists());
        QVERIFY(QMCache::ClearFolder("Sub"));
    }

    void expiryInCalendarDays_data()
    {
        QTest::addColumn<QDateTime>("modified");
        QTest::addColumn<bool>("expired");
        const QDate today = QDate::currentDate();
        QTest::newRow("yesterday 23:59") << QDateTime(today.addDays(-1), QTime(23, 59)) << true;
        QTest::newRow("today 00:00") << QDateTime(today, QTime(0, 0)) << false;
        QTest::newRow("two days ago") << QDateTime(today.addDays(-2), QTime(12, 0)) << true;
        QTest::newRow("just now") << QDateTime::currentDateTime() << false;
    }
    void expiryInCalendarDays()
    {
        QFETCH(QDateTime, modified);
        QFETCH(bool, expired);
        QVERIFY(QMCache::Create("{}", "MemberInfo.json"));
        QFile file(m_folder + "MemberInfo.json");
        QVERIFY(file.open(QIODevice::ReadWrite));
        QVERIFY(file.setFileTime(modified, QFileDevice::FileModificationTime));
        file.close();
        QCOMPARE(QMCache::Expired("MemberInfo.json"), expired);
    }

    void productListText_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<ProductIDList>("list");
        QTest::newRow("skipping rules") << "A:1;;B;C:2:3;D:x" << ProductIDList{{L"A", 1}, {L"D", 0}};
        QTest::newRow("two") << "P1:3;P2:12" << ProductIDList{{L"P1", 3}, {L"P2", 12}};
        QTest::newRow("empty") << "" << ProductIDList{};
        QTest::newRow("colons only") << ":::;;" << ProductIDList{};
        QTest::newRow("negative") << "Q:-4" << ProductIDList{{L"Q", -4}};
    }
    void productListText()
    {
        QFETCH(QString, text);
        QFETCH(ProductIDList, list);
        QVERIFY(QMCache::StringToList(text) == list);
        QVERIFY(QMCache::StringToList(QMCache::ListToString(list)) == list);
    }

    void installedListModified_data()
    {
        QTest::addColumn<QString>("cached"); // "<none>": no cache file
        QTest::addColumn<ProductIDList>("installed");
        QTest::addColumn<bool>("modified");
        QTest::newRow("nothing at all") << "<none>" << ProductIDList{} << true;
        QTest::newRow("unchanged") << "A:1;B:2" << ProductIDList{{L"A", 1}, {L"B", 2}} << false;
        QTest::newRow("other order") << "B:2;A:1" << ProductIDList{{L"A", 1}, {L"B", 2}} << false;
        QTest::newRow("language changed") << "A:1;B:2" << ProductIDList{{L"A", 1}, {L"B", 3}} << true;
        QTest::newRow("one more") << "A:1" << ProductIDList{{L"A", 1}, {L"B", 2}} << true;
        QTest::newRow("case matters") << "a:1" << ProductIDList{{L"A", 1}} << true;
        // Every match counts: a duplicate balances a missing entry.
        QTest::newRow("duplicate balances") << "A:1;A:1" << ProductIDList{{L"A", 1}, {L"B", 2}} << false;
        QTest::newRow("unparsable cache") << "garbage" << ProductIDList{{L"A", 1}} << true;
    }
    void installedListModified()
    {
        QFETCH(QString, cached);
        QFETCH(ProductIDList, installed);
        QFETCH(bool, modified);
        if (cached != QLatin1String("<none>"))
            QVERIFY(QMCache::Create(cached, "InstalledProductList"));
        QCOMPARE(QMCache::InstalledListModified(installed), modified);
    }

    void urlSchemeTokens_data()
    {
        QTest::addColumn<QString>("token");
        QTest::addColumn<QString>("text");
        const QString latin = CQMMemberWebService::EncryptUrlScheme("member=100001");
        QTest::newRow("round trip") << latin << "member=100001";
        const QString nonLatin = QString::fromUtf8("Grüße 世界 \xF0\x9F\x98\x80");
        QTest::newRow("non-Latin") << CQMMemberWebService::EncryptUrlScheme(nonLatin) << nonLatin;
        QTest::newRow("lowercase") << latin.toLower() << "";
        QTest::newRow("odd length") << latin.left(latin.size() - 1) << "";
        QTest::newRow("not hex") << QString(latin).replace(0, 1, "G") << "";
        // Below "A" a digit counts from "0": ":" to "?" are 10 to 15, "@" is 16.
        QString punctuated = latin;
        for (QChar& c : punctuated)
            if (c >= 'A' && c <= 'F')
                c = QChar(c.unicode() - 'A' + ':');
        QTest::newRow("':' to '?' as 10 to 15") << punctuated << "member=100001";
        QTest::newRow("'@' is 16") << QString(latin).replace(0, 1, "@") << "";
        QTest::newRow("'/' is below 0") << QString(latin).replace(0, 1, "/") << "";
        QTest::newRow("empty") << "" << "";
        QTest::newRow("cut at zero") << CQMMemberWebService::EncryptUrlScheme(QString("ab") + QChar(0) + "cd") << "ab";
    }
    void urlSchemeTokens()
    {
        QFETCH(QString, token);
        QFETCH(QString, text);
        QCOMPARE(CQMMemberWebService::DecryptUrlScheme(token), text);
        if (!text.isEmpty() && CQMMemberWebService::EncryptUrlScheme(text) == token)
            QCOMPARE(token.size(), text.toUtf8().size() * 2);
    }

    void urlSchemeSharesTheCacheCipher()
    {
        QVERIFY(CQMMemberWebService::EncryptUrlScheme("").isEmpty());
        QDir().mkpath(m_folder);
        WriteRaw("Token", CQMMemberWebService::EncryptUrlScheme("shared").toLatin1());
        QCOMPARE(QMCache::Content("Token"), QStringLiteral("shared"));
    }

    void keyIsNeverStoredWhole()
    {
        const QByteArray key = QMCipher::CacheKey();
        QCOMPARE(key.size(), 7);
        QFile library(QStringLiteral(QM_LIBRARY_FILE));
        QVERIFY(library.open(QIODevice::ReadOnly));
        QVERIFY(!library.readAll().contains(key));
    }
};

QTEST_GUILESS_MAIN(TestCache)
#include "tst_cache.moc"
