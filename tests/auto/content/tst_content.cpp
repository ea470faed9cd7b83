#include "QMMemberWebService.h"

#include "ServerFixture.h"
#include "TestService.h"
#include "registry/QMRegistryAgent.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QtTest>

#include <functional>

namespace {

const std::wstring kProduct = L"SOFTWARE\\Quillmarsh\\Content Test";
const char* const kDemoEmail = "demo@quillmarsh.test";

using Service = TestService;
using Call = std::function<int(Service&, std::wstring&)>;

// Reads replies without a request: the bytes as received, and the wide text the asynchronous road reads.
class ReplyService : public TestService
{
public:
    using TestService::TestService;
    using CQMMemberWebService::ExtractApiResult;
};

// What the road must give for a reply: Qt's reading of the text (each sequence that is not
// UTF-8 replaced) and the compact JSON of its "data", decoded by Qt.
std::pair<int, std::wstring> QtReading(const QByteArray& reply)
{
    const QJsonDocument document = QJsonDocument::fromJson(QString::fromUtf8(reply).toUtf8());
    if (document.isNull())
        return {-12, std::wstring()};
    const QJsonValue data = document.object().value("result").toObject().value("data");
    const QByteArray compact = data.isObject()  ? QJsonDocument(data.toObject()).toJson(QJsonDocument::Compact)
                               : data.isArray() ? QJsonDocument(data.toArray()).toJson(QJsonDocument::Compact)
                                                : QByteArray();
    return {2, QString::fromUtf8(compact).toStdWString()};
}

std::wstring W(const QString& text)
{
    return text.toStdWString();
}

QString Q(const std::wstring& text)
{
    return QString::fromStdWString(text);
}

std::vector<std::wstring> Ids(const QStringList& ids)
{
    std::vector<std::wstring> list;
    for (const QString& id : ids)
        list.push_back(W(id));
    return list;
}

QString Envelope(const QString& data)
{
    return QStringLiteral("{\"apiStatus\":2,\"result\":{\"status\":2,\"data\":%1}}").arg(data);
}

} // namespace

Q_DECLARE_METATYPE(Call)
Q_DECLARE_METATYPE(std::wstring)

class TestContent : public QObject
{
    Q_OBJECT

private:
    ServerFixture m_server;
    std::unique_ptr<StoreFolder> m_store;
    QString m_memberId;
    int m_cartMembers = 0;

    void SignIn(const QString& email = QString::fromLatin1(kDemoEmail))
    {
        const QJsonObject tokens = m_server.Admin("/admin/token", {{"email", email}});
        m_memberId = tokens.value("memberid").toString();
        Service service(kProduct, false, 10000, 0);
        QVERIFY(service.SaveMemberToken(W(tokens.value("access_token").toString()),
                                        W(tokens.value("refresh_token").toString())));
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_server.Start({"--seed", "demo", "--seed", "catalogue=10000"}));
        m_server.Export();
        qRegisterMetaType<CQMMemberWebService::EWSResult>("EWSResult");
        qRegisterMetaType<std::wstring>("std::wstring");
        static QMRegistryTool::CQMRegistryAgent agent;
        CQMMemberWebService::SetRegistryInterface(&agent);
    }

    void init()
    {
        m_store = std::make_unique<StoreFolder>();
        m_server.Reset();
        SignIn();
    }

    // Verb, target and body of each method as the server received them.
    void requestsAsTheServerSawThem_data()
    {
        QTest::addColumn<Call>("call");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("target");
        QTest::addColumn<QString>("body"); // empty: a GET
        QTest::addColumn<int>("result");
        const std::vector<std::wstring> one{L"DEMO-0001"};
        QTest::newRow("base list, empty product")
            << Call([](Service& s, std::wstring& out) { return s.GetContentBaseList(L"", out, 5000); })
            << "/ContentManager/v1/Content/BaseList" << "/ContentManager/v1/Content/BaseList?ProductID=" << ""
            << 4;
        QTest::newRow("categories, empty version")
            << Call([](Service& s, std::wstring& out) { return s.GetContentCategoryList(L"DemoStudio", L"", out, 5000); })
            << "/ContentManager20/v2/Content/ContentCategory"
            << "/ContentManager20/v2/Content/ContentCategory?ProductID=DemoStudio&Version=" << "" << 4;
        QTest::newRow("second type list")
            << Call([](Service& s, std::wstring& out) { return s.GetContentTypeListV2(L"DemoStudio", L"8", out, 5000); })
            << "/ContentManager20/v2/Content/Type" << "/ContentManager20/v2/Content/Type?ProductID=DemoStudio&Version=8"
            << "" << 2;
        QTest::newRow("mine alias sends the mine URL, no owner key")
            << Call([](Service& s, std::wstring&) {
                   return s.GetMemberContentList(Service::MemberContentMineAlias, L"DemoStudio", L"8", "host-id", L"",
                                                 5000, true);
               })
            << "/ContentManager/v2/User/MyContent"
            << "/ContentManager/v2/User/MyContent?ProductID=DemoStudio&Version=8" << "" << 2;
        QTest::newRow("recommend of another member, not a sitter for them")
            << Call([](Service& s, std::wstring&) {
                   return s.GetMemberContentList(Service::MemberContentRecommend, L"DemoStudio", L"8", "host-id",
                                                 L"100003", 5000, true);
               })
            << "/ContentManager/v1/User/Recommend"
            << "/ContentManager/v1/User/Recommend?ProductID=DemoStudio&Version=8&OwnerMID=100003" << "" << 5;
        QTest::newRow("metadata, one ID")
            << Call([one](Service& s, std::wstring& out) { return s.GetContentMetaData(L"DemoStudio", L"8", one, 3, 1, out, 5000); })
            << "/ContentManager/v3/Content/MetaData" << "/ContentManager/v3/Content/MetaData"
            << "{\"ProductID\":\"DemoStudio\",\"Version\":8,\"ContentID\":[\"DEMO-0001\"],\"RequestIndex\":3,\"RequestTarget\":1}"
            << 2;
        QTest::newRow("metadata, empty version is read leniently")
            << Call([](Service& s, std::wstring& out) {
                   return s.GetContentMetaData(L"DemoStudio", L"", {L"DEMO-0001", L"DEMO-0002"}, 0, 0, out, 5000);
               })
            << "/ContentManager/v3/Content/MetaData" << "/ContentManager/v3/Content/MetaData"
            << "{\"ProductID\":\"DemoStudio\",\"Version\":,\"ContentID\":[\"DEMO-0001\",\"DEMO-0002\"],\"RequestIndex\":0,\"RequestTarget\":0}"
            << 2;
        QTest::newRow("metadata, a quote inside an ID")
            << Call([](Service& s, std::wstring& out) { return s.GetContentMetaData(L"P", L"8", {L"a\"b"}, 0, 1, out, 5000); })
            << "/ContentManager/v3/Content/MetaData" << "/ContentManager/v3/Content/MetaData"
            << "{\"ProductID\":\"P\",\"Version\":8,\"ContentID\":[\"a\"b\"],\"RequestIndex\":0,\"RequestTarget\":1}" << 4;
        QTest::newRow("new versions, no IDs")
            << Call([](Service& s, std::wstring&) {
                   std::vector<std::wstring> found;
                   return s.GetNewVersionContentIDList(L"DemoStudio", L"8", {}, found, 5000);
               })
            << "/ContentManager/v1/Content/FileVersion" << "/ContentManager/v1/Content/FileVersion"
            << "{\"ProductID\":\"DemoStudio\",\"Version\":8,\"ContentID\":[]}" << 2;
        QTest::newRow("hash notice")
            << Call([](Service& s, std::wstring&) {
                   return s.NotifyInconsistentMetadataHash(L"DemoStudio", L"8", {L"DEMO-0001", L"DEMO-0004"}, 5000);
               })
            << "/ContentManager/v1/Content/NotifyInconsistentHash" << "/ContentManager/v1/Content/NotifyInconsistentHash"
            << "{\"ProductID\":\"DemoStudio\",\"Version\":8,\"ContentID\":[\"DEMO-0001\",\"DEMO-0004\"]}" << 2;
        QTest::newRow("QM content")
            << Call([](Service& s, std::wstring& out) { return s.GetQMContent({L"DEMO-0001", L"x"}, out, 5000); })
            << "/ContentManager/v1/User/GetQMContent" << "/ContentManager/v1/User/GetQMContent"
            << "{\"ContentID\":[\"DEMO-0001\",\"x\"]}" << 2;
        QTest::newRow("cart, no IDs")
            << Call([](Service& s, std::wstring&) {
                   QSet<QString> links;
                   return s.AddToMemberCart({}, links, 5000);
               })
            << "/ContentManager/v2/User/Cart" << "/ContentManager/v2/User/Cart" << "[]" << 2;
    }
    void requestsAsTheServerSawThem()
    {
        QFETCH(Call, call);
        QFETCH(QString, path);
        QFETCH(QString, target);
        QFETCH(QString, body);
        QFETCH(int, result);
        Service service(kProduct, false, 10000, 0);
        std::wstring out;
        QCOMPARE(call(service, out), result);
        const QList<QJsonObject> seen = m_server.Requests(path);
        QCOMPARE(seen.size(), 1);
        QCOMPARE(seen.first().value("method").toString(), QString(body.isEmpty() ? "GET" : "POST"));
        QCOMPARE(seen.first().value("target").toString(), target);
        QCOMPARE(seen.first().value("body").toString(), body);
    }

    // A missing login or a failed exchange keeps the output (the pipeline reports the failed
    // exchange before it reads the empty reply); a failing status empties it.
    void outputRule_data()
    {
        QTest::addColumn<QJsonObject>("fault");
        QTest::addColumn<QString>("host"); // empty: the test's server
        QTest::addColumn<bool>("signedIn");
        QTest::addColumn<int>("result");
        QTest::addColumn<QString>("out"); // "<data>": the metadata reply
        QTest::newRow("success") << QJsonObject() << "" << true << 2 << "<data>";
        QTest::newRow("failing status") << QJsonObject{{"status", 3}} << "" << true << 3 << "";
        QTest::newRow("expired once: the repeated request's text")
            << QJsonObject{{"status", 6}, {"times", 1}} << "" << true << 2 << "<data>";
        QTest::newRow("reply dropped") << QJsonObject{{"drop", true}} << "" << true << -12 << "before";
        QTest::newRow("failed connection") << QJsonObject() << "127.0.0.1:1" << true << -12 << "before";
        QTest::newRow("no login") << QJsonObject() << "" << false << -1 << "before";
    }
    void outputRule()
    {
        QFETCH(QJsonObject, fault);
        QFETCH(QString, host);
        QFETCH(bool, signedIn);
        QFETCH(int, result);
        QFETCH(QString, out);
        if (!signedIn)
            CQMMemberWebService::MemberLogOut();
        if (!fault.isEmpty()) {
            fault.insert("path", "/ContentManager/v3/Content/MetaData");
            m_server.Fault(fault);
        }
        if (!host.isEmpty())
            qputenv("QM_API_HOST", host.toUtf8());
        Service service(kProduct, false, 10000, 0);
        m_server.Export();
        std::wstring text = L"before";
        QCOMPARE(int(service.GetContentMetaData(L"DemoStudio", L"8", {L"DEMO-0002"}, 0, 1, text, 5000)), result);
        if (out == QLatin1String("<data>")) {
            const QJsonObject data = QJsonDocument::fromJson(Q(text).toUtf8()).object();
            QCOMPARE(data.value("Items").toArray().first().toObject().value("Title").toString(),
                     QStringLiteral("Birthday Card"));
            QVERIFY(data.value("Items").toArray().first().toObject().value("MetaData").isObject());
        } else {
            QCOMPARE(Q(text), out);
        }
    }

    // A call made from a handler of another call's end, and an asynchronous list next to a
    // synchronous call: each output holds its own text only.
    void callsOnOneObjectKeepTheirOwnText()
    {
        Service service(kProduct, false, 10000, 0);
        std::wstring outer;
        std::wstring inner;
        bool nested = false;
        connect(&service, &CQMMemberWebService::FinishApiRequest, this,
                [&](const std::wstring&, bool, QString) {
                    if (!nested) {
                        nested = true;
                        service.GetContentTypeList(L"DemoStudio", L"8", inner, 5000);
                    }
                },
                Qt::DirectConnection);
        QCOMPARE(service.GetContentBaseList(L"DemoStudio", outer, 5000), Service::WS_OK);
        QVERIFY(nested);
        QVERIFY(Q(outer).contains("\"Versions\""));
        QVERIFY(Q(inner).contains("\"TypeName\":\"Templates\""));
        QVERIFY(!Q(inner).contains("Versions"));
        disconnect(&service, nullptr, this, nullptr);

        m_server.Fault({{"path", "/ContentManager/v2/User/UserInventory"}, {"delay_ms", 300}});
        QSignalSpy finished(&service, &CQMMemberWebService::FinishApiRequest);
        QCOMPARE(service.GetMemberContentList(Service::MemberContentInventory, L"DemoStudio", L"8", "inventory-1",
                                              L"", 5000, false),
                 Service::WS_OK);
        std::wstring types;
        QCOMPARE(service.GetContentTypeListV2(L"DemoStudio", L"8", types, 5000), Service::WS_OK);
        QTRY_VERIFY_WITH_TIMEOUT(!finished.isEmpty() && finished.last().at(2).toString() == "inventory-1", 5000);
        QVERIFY(Q(types).contains("\"Project Templates\""));
        QVERIFY(!Q(types).contains("DEMO-0003"));
        const QString list = Q(finished.last().at(0).value<std::wstring>());
        QVERIFY(list.contains("DEMO-0003") && list.contains("DEMO-0005"));
    }

    // The result text is Qt's compact JSON of "data" however the reply spells it, and every
    // slot of FinishApiRequest sees the same text that the output receives.
    void awkwardRepliesGiveQtsCompactText_data()
    {
        QTest::addColumn<QString>("data");
        QTest::newRow("key order, numbers")
            << "{\"b\":1,\"a\":[1.0,-0,1E2,0.1,12345678901234567890,1.5e-7,9007199254740993],\"A\":null,\"\u00e9\":true}";
        QTest::newRow("escapes") << "[\"\\\"\\\\\\/\\b\\f\\n\\r\\t\",\"\\u0000\\u001f\\u007f\",\"\\ud800x\",\"\\udc00\",\"\\u2028\"]";
        QTest::newRow("beyond ASCII")
            << QString::fromUtf8("[\"\u00e9\u4e2d\",\"\U0001F600\",\"\\ud83d\\ude00\",\"a\ufeffb\",\"\uffff\\ufffd\"]");
        QTest::newRow("data neither object nor array") << "7";
    }
    void awkwardRepliesGiveQtsCompactText()
    {
        QFETCH(QString, data);
        const QByteArray reply = Envelope(data).toUtf8();
        m_server.Fault({{"path", "/ContentManager/v3/Content/MetaData"}, {"body", QString::fromUtf8(reply)}});
        Service service(kProduct, false, 10000, 0);
        QSignalSpy finished(&service, &CQMMemberWebService::FinishApiRequest);
        std::wstring text = L"before";
        QCOMPARE(int(service.GetContentMetaData(L"P", L"1", {L"a"}, 0, 1, text, 5000)), 2);
        QCOMPARE(text, QtReading(reply).second);
        QCOMPARE(finished.size(), 1);
        QCOMPARE(finished.first().at(0).value<std::wstring>(), text);
    }

    // Bytes as received, valid or not, give the code and text of Qt's reading, on the bytes
    // road and on the wide one alike.
    void replyBytesReadAsQtReadsThem_data()
    {
        QTest::addColumn<QByteArray>("reply");
        const QByteArray head = "{\"apiStatus\":2,\"result\":{\"status\":2,\"data\":[\"";
        const QByteArray tail = "\"]}}";
        QTest::newRow("ASCII") << head + "plain" + tail;
        QTest::newRow("Latin-1 byte") << head + "caf\xe9" + tail;
        QTest::newRow("stray continuation byte") << head + "a\x80z" + tail;
        QTest::newRow("overlong slash") << head + "\xc0\xaf" + tail;
        QTest::newRow("surrogate in UTF-8") << head + "\xed\xa0\x80" + tail;
        QTest::newRow("above U+10FFFF") << head + "\xf4\x90\x80\x80" + tail;
        QTest::newRow("sequence cut by the quote") << head + "\xe4\xb8" + tail;
        QTest::newRow("cut at the end") << head + "x" + tail + "\xf0\x9f";
        QTest::newRow("byte order mark first") << "\xef\xbb\xbf" + head + "x" + tail;
        QTest::newRow("valid four-byte") << head + "\xf0\x9f\x98\x80" + tail;
        QTest::newRow("not JSON") << QByteArray("\xff\xfe{");
        QTest::newRow("empty") << QByteArray();
    }
    void replyBytesReadAsQtReadsThem()
    {
        QFETCH(QByteArray, reply);
        ReplyService service(kProduct, false, 10000, 0);
        const std::pair<int, std::wstring> expected = QtReading(reply);
        std::wstring bytesText;
        QCOMPARE(int(service.ExtractApiResult(L"/x", std::string(), 1000, false, true, reply.toStdString(), bytesText,
                                              "id")),
                 expected.first);
        QCOMPARE(bytesText, expected.second);
        std::wstring wideText;
        QCOMPARE(int(service.ExtractApiResult(L"/x", std::string(), 1000, false, true,
                                              QString::fromUtf8(reply).toStdWString(), wideText, "id")),
                 expected.first);
        QCOMPARE(wideText, expected.second);
    }

    void unknownListTypeIsRefused()
    {
        Service service(kProduct, false, 10000, 0);
        QSignalSpy finished(&service, &CQMMemberWebService::FinishApiRequest);
        QSignalSpy errors(&service, &CQMMemberWebService::ErrorNotice);
        QCOMPARE(service.GetMemberContentList(Service::EMemberContentListType(1), L"DemoStudio", L"8", "id", L"",
                                              5000, true),
                 Service::WS_PARAM_FAIL);
        QCOMPARE(finished.size() + errors.size(), 0);
        QCOMPARE(m_server.Requests("/ContentManager/v2/User/MyContent").size(), 0);
    }

    void newVersionReplies_data()
    {
        QTest::addColumn<QString>("data");
        QTest::addColumn<QStringList>("ids");
        QTest::newRow("string true is not taken")
            << "[{\"ItemInfo\":[{\"ContentID\":\"a\",\"HasNewVersion\":\"true\"},{\"ContentID\":\"b\",\"HasNewVersion\":true}]}]"
            << QStringList{"kept", "b"};
        QTest::newRow("element without ItemInfo, empty ItemInfo, non-objects")
            << "[{\"Missing\":[\"x\"]},{\"ItemInfo\":[]},7,{\"ItemInfo\":{\"ContentID\":\"y\"}},{\"ItemInfo\":[1,{\"ContentID\":\"c\",\"HasNewVersion\":true}]}]"
            << QStringList{"kept", "c"};
        QTest::newRow("duplicates kept in reply order")
            << "[{\"ItemInfo\":[{\"ContentID\":\"a\",\"HasNewVersion\":true}]},{\"ItemInfo\":[{\"ContentID\":\"b\",\"HasNewVersion\":true},{\"ContentID\":\"a\",\"HasNewVersion\":true}]}]"
            << QStringList{"kept", "a", "b", "a"};
        QTest::newRow("not an array") << "{\"ItemInfo\":[{\"ContentID\":\"a\",\"HasNewVersion\":true}]}"
                                      << QStringList{"kept"};
    }
    void newVersionReplies()
    {
        QFETCH(QString, data);
        QFETCH(QStringList, ids);
        m_server.Fault({{"path", "/ContentManager/v1/Content/FileVersion"}, {"body", Envelope(data)}});
        Service service(kProduct, false, 10000, 0);
        std::vector<std::wstring> found{L"kept"};
        QCOMPARE(service.GetNewVersionContentIDList(L"P", L"1", {L"a"}, found, 5000), Service::WS_OK);
        QCOMPARE(found, Ids(ids));
    }

    // Metadata fetched, a new file version published, then found; the hash notice recorded.
    void newVersionAndHashNoticeEndToEnd()
    {
        Service service(kProduct, false, 10000, 0);
        std::wstring text;
        QCOMPARE(service.GetContentMetaData(L"DemoStudio", L"8", {L"DEMO-0006", L"DEMO-0004"}, 0, 1, text, 5000),
                 Service::WS_OK);
        const QJsonObject published = m_server.Admin("/admin/content/publish", {{"ContentID", "DEMO-0006"}});
        QVERIFY(published.value("FileVersion").toInt() >= 2);
        std::vector<std::wstring> found;
        QCOMPARE(service.GetNewVersionContentIDList(L"DemoStudio", L"8", {L"DEMO-0004", L"DEMO-0006", L"nope"},
                                                    found, 5000),
                 Service::WS_OK);
        QCOMPARE(found, Ids({"DEMO-0006"}));
        QCOMPARE(service.NotifyInconsistentMetadataHash(L"DemoStudio", L"8", {L"DEMO-0004"}, 5000), Service::WS_OK);
        const QJsonArray notices =
            m_server.Admin("/admin/content/hash-notices?ContentID=DEMO-0004").value("notices").toArray();
        QCOMPARE(notices.size(), 1);
        QCOMPARE(notices.first().toObject().value("MemberID").toString(), m_memberId);
    }

    void cartReplies_data()
    {
        QTest::addColumn<QString>("data"); // empty: the server's own answer
        QTest::addColumn<bool>("signedIn");
        QTest::addColumn<int>("result");
        QTest::addColumn<QStringList>("links");
        QTest::newRow("equal links collapse")
            << "{\"DataArray\":[{\"ReturnCode\":2,\"CartUrl\":\"u1\"},{\"ReturnCode\":2,\"CartUrl\":\"u1\"},{\"ReturnCode\":2,\"CartUrl\":\"u2\"}]}"
            << true << 2 << QStringList{"old", "u1", "u2"};
        QTest::newRow("refused items add nothing")
            << "{\"DataArray\":[{\"ReturnCode\":3,\"CartUrl\":\"u3\"},{\"CartUrl\":\"u4\"},{\"ReturnCode\":\"2\",\"CartUrl\":\"u5\"}]}"
            << true << 2 << QStringList{"old"};
        QTest::newRow("no DataArray") << "[]" << true << 2 << QStringList{"old"};
        QTest::newRow("no login") << "" << false << -1 << QStringList{"old"};
        QTest::newRow("server: added, owned, not for sale, unknown")
            << "" << true << 2 << QStringList{"old", "<DEMO-0002>"};
    }
    void cartReplies()
    {
        QFETCH(QString, data);
        QFETCH(bool, signedIn);
        QFETCH(int, result);
        QFETCH(QStringList, links);
        if (!signedIn)
            CQMMemberWebService::MemberLogOut();
        else
            SignIn(QStringLiteral("cart-%1@quillmarsh.test").arg(++m_cartMembers));
        if (!data.isEmpty())
            m_server.Fault({{"path", "/ContentManager/v2/User/Cart"}, {"body", Envelope(data)}});
        Service service(kProduct, false, 10000, 0);
        QSet<QString> cart{"old"};
        QCOMPARE(int(service.AddToMemberCart({L"DEMO-0002", L"DEMO-0002", L"DEMO-0008", L"nope"}, cart, 5000)),
                 result);
        QSet<QString> expected;
        for (QString link : links)
            expected.insert(link.startsWith('<') ? QStringLiteral("https://%1/cart/%2?added=%3")
                                                       .arg(m_server.Host(), m_memberId, link.mid(1, link.size() - 2))
                                                 : link);
        QCOMPARE(cart, expected);
    }

    // All IDs in one request; the server answers each once.
    void tenThousandIdsInOneRequest()
    {
        QStringList ids;
        for (int n = 1; n <= 10000; ++n)
            ids << QStringLiteral("BENCH-%1").arg(n, 6, 10, QLatin1Char('0'));
        Service service(kProduct, false, 10000, 0);
        std::wstring text;
        QCOMPARE(service.GetContentMetaData(L"BenchStudio", L"1", Ids(ids), 0, 1, text, 30000), Service::WS_OK);
        QCOMPARE(m_server.Requests("/ContentManager/v3/Content/MetaData").size(), 1);
        const QJsonObject data = QJsonDocument::fromJson(Q(text).toUtf8()).object();
        QCOMPARE(data.value("Items").toArray().size(), 10000);
        QCOMPARE(data.value("Items").toArray().last().toObject().value("ContentID").toString(), ids.last());
    }
};

QTEST_GUILESS_MAIN(TestContent)
#include "tst_content.moc"
