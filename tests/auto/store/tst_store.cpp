#include "ServerFixture.h"
#include "TestService.h"
#include "registry/QMRegistryAgent.h"
#include "registry/RegistryStore.h"

#include <QProcess>
#include <QRandomGenerator>
#include <QStandardPaths>
#include <QtTest>

#include <csignal>
#include <sys/stat.h>
#include <unistd.h>

using QMRegistryTool::CQMRegistryAgent;

namespace {
constexpr int kValuesPerWriter = 1000;
const char* const kWriterVariable = "QM_STORE_TEST_WRITER";
const char* const kSaverVariable = "QM_STORE_TEST_SAVER";
const std::wstring kCompany = L"SOFTWARE\\Quillmarsh";

// The child side of the cross-process test: writes its own values one by one.
int RunWriter(const QString& prefix)
{
    CQMRegistryAgent agent;
    for (int i = 0; i < kValuesPerWriter; ++i) {
        const std::wstring name = QStringLiteral("%1-%2").arg(prefix).arg(i).toStdWString();
        if (!agent.WriteString(true, L"SOFTWARE\\Quillmarsh\\Shared", name, std::to_wstring(i)))
            return 1;
    }
    return 0;
}
// The child side of the kill test: saves pairs of one number until it is killed.
int RunSaver()
{
    QMRegistryTool::CQMRegistryAgent agent;
    CQMMemberWebService::SetRegistryInterface(&agent);
    TestService service(0);
    for (int i = 0;; ++i) {
        const std::wstring n = std::to_wstring(i);
        if (!service.SaveMemberToken(L"access-" + n, L"refresh-" + n))
            return 1;
        if (i == 0) {
            fputs("ready\n", stdout);
            fflush(stdout);
        }
    }
}

QString ReadCompany(const char* name)
{
    return QMRegistryTool::Store::Read(true, QString::fromStdWString(kCompany), QString::fromLatin1(name)).toString();
}

QStringList g_warnings;
void KeepWarnings(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    if (type == QtWarningMsg)
        g_warnings.append(text);
}

} // namespace

class TestStore : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<StoreFolder> m_folder;

private slots:
    void init() { m_folder = std::make_unique<StoreFolder>(); }

    void keyPathsIgnoreCase_data()
    {
        QTest::addColumn<QString>("writeKey");
        QTest::addColumn<QString>("writeName");
        QTest::addColumn<QString>("readKey");
        QTest::addColumn<QString>("readName");
        QTest::newRow("case of the key") << "SOFTWARE\\Quillmarsh" << "QMToken" << "Software\\Quillmarsh" << "QMToken";
        QTest::newRow("case of the name") << "SOFTWARE\\Quillmarsh" << "UsingLocalTime" << "SOFTWARE\\Quillmarsh"
                                          << "usinglocaltime";
        QTest::newRow("separators") << "SOFTWARE\\\\Quillmarsh\\" << "A" << "software/quillmarsh" << "a";
        QTest::newRow("32-bit view") << "SOFTWARE\\WOW6432Node\\Quillmarsh\\Old" << "Product Build"
                                     << "Software\\Quillmarsh\\Old" << "Product Build";
    }
    void keyPathsIgnoreCase()
    {
        QFETCH(QString, writeKey);
        QFETCH(QString, writeName);
        QFETCH(QString, readKey);
        QFETCH(QString, readName);
        CQMRegistryAgent agent;
        QVERIFY(agent.WriteString(false, writeKey.toStdWString(), writeName.toStdWString(), L"value"));
        std::wstring value;
        QVERIFY(agent.ReadString(false, readKey.toStdWString(), readName.toStdWString(), value));
        QVERIFY(value == L"value");
        QVERIFY(!agent.ReadString(true, readKey.toStdWString(), readName.toStdWString(), value)); // other hive
    }

    void valueKinds()
    {
        CQMRegistryAgent agent;
        QVERIFY(agent.WriteNumber(true, L"SOFTWARE\\Quillmarsh", L"Target Server", 3));
        QVERIFY(agent.WriteString(true, L"SOFTWARE\\Quillmarsh", L"Text", L"not a number"));
        int number = -5;
        QVERIFY(agent.ReadNumber(true, L"SOFTWARE\\Quillmarsh", L"Target Server", number));
        QCOMPARE(number, 3);
        QVERIFY(!agent.ReadNumber(true, L"SOFTWARE\\Quillmarsh", L"Text", number));
        QCOMPARE(number, 3);
        std::wstring text;
        QVERIFY(agent.ReadString(true, L"SOFTWARE\\Quillmarsh", L"Target Server", text));
        QVERIFY(text == L"3");
        QVERIFY(agent.DeleteValue(true, L"SOFTWARE\\Quillmarsh", L"TEXT"));
        QVERIFY(!agent.DeleteValue(true, L"SOFTWARE\\Quillmarsh", L"Text"));
        QVERIFY(!agent.ReadString(true, L"SOFTWARE\\Quillmarsh", L"Text", text));
        // The direct road of the service reaches the same values.
        QCOMPARE(QMRegistryTool::Store::ReadNative("HKEY_CURRENT_USER\\Software\\Quillmarsh", "target server").toInt(),
                 3);
    }

    void filesArePrivate()
    {
        CQMRegistryAgent agent;
        QVERIFY(agent.WriteString(true, L"SOFTWARE\\Quillmarsh", L"QMToken", L"secret"));
        QVERIFY(agent.WriteString(false, L"SOFTWARE\\Quillmarsh", L"X", L"y"));
        for (const char* file : {"/HKEY_CURRENT_USER.db", "/HKEY_LOCAL_MACHINE.db"}) {
            struct stat info {};
            QCOMPARE(::stat(QFile::encodeName(m_folder->Path() + file).constData(), &info), 0);
            QCOMPARE(info.st_mode & 0777, mode_t(0600));
        }
    }

    void twoProcessesLoseNothing()
    {
        QList<QProcess*> writers;
        for (const char* prefix : {"first", "second"}) {
            auto* writer = new QProcess(this);
            QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
            environment.insert(kWriterVariable, prefix);
            writer->setProcessEnvironment(environment);
            writer->start(QCoreApplication::applicationFilePath(), QStringList());
            writers.append(writer);
        }
        for (QProcess* writer : writers) {
            QVERIFY(writer->waitForFinished(120000));
            QCOMPARE(writer->exitCode(), 0);
        }
        CQMRegistryAgent agent;
        int found = 0;
        for (const char* prefix : {"first", "second"}) {
            for (int i = 0; i < kValuesPerWriter; ++i) {
                std::wstring value;
                const std::wstring name = QStringLiteral("%1-%2").arg(prefix).arg(i).toStdWString();
                if (agent.ReadString(true, L"SOFTWARE\\Quillmarsh\\Shared", name, value) && value == std::to_wstring(i))
                    ++found;
            }
        }
        QCOMPARE(found, 2 * kValuesPerWriter);
    }

    // A process killed while it saves leaves the four values of one save or of the one before.
    void killedSaveLeavesNoTornPair()
    {
        for (int round = 0; round < 20; ++round) {
            QProcess saver;
            QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
            environment.insert(kSaverVariable, "1");
            saver.setProcessEnvironment(environment);
            saver.start(QCoreApplication::applicationFilePath(), QStringList());
            QVERIFY(saver.waitForReadyRead(10000));
            ::kill(static_cast<pid_t>(saver.processId()), SIGKILL);
            QVERIFY(saver.waitForFinished(10000));
            const QString access = ReadCompany("QMToken");
            QVERIFY(access.startsWith("access-"));
            QCOMPARE(ReadCompany("QMReToken"), QString(access).replace("access-", "refresh-"));
            QCOMPARE(ReadCompany("QMBakToken"), access);
        }
    }

    void transactionJoinsWrites()
    {
        CQMRegistryAgent agent;
        QVERIFY(agent.Transaction(true, [&] {
            return agent.WriteString(true, kCompany, L"A", L"1")
                   && agent.Transaction(true, [&] { return agent.WriteString(true, kCompany, L"B", L"2"); });
        }));
        QCOMPARE(ReadCompany("A") + ReadCompany("B"), QStringLiteral("12"));
        // The writes' own answer comes back; what was written stays.
        QVERIFY(!agent.Transaction(true, [&] { return agent.WriteString(true, kCompany, L"C", L"3") && false; }));
        QCOMPARE(ReadCompany("C"), QStringLiteral("3"));
    }

    void corruptStoreIsMovedAside_data()
    {
        QTest::addColumn<QString>("damage");
        QTest::newRow("truncated to 4096 bytes") << "truncate";
        QTest::newRow("random bytes") << "random";
    }
    void corruptStoreIsMovedAside()
    {
        QFETCH(QString, damage);
        // Another process fills the store and closes it cleanly.
        QProcess writer;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(kWriterVariable, "filler");
        writer.setProcessEnvironment(environment);
        writer.start(QCoreApplication::applicationFilePath(), QStringList());
        QVERIFY(writer.waitForFinished(60000));
        QCOMPARE(writer.exitCode(), 0);
        const QString file = m_folder->Path() + "/HKEY_CURRENT_USER.db";
        QFile store(file);
        QVERIFY(store.size() > 8192);
        if (damage == "truncate") {
            QVERIFY(store.resize(4096));
        } else {
            const qint64 size = store.size();
            QVERIFY(store.open(QIODevice::WriteOnly | QIODevice::Truncate));
            QByteArray noise(int(size), Qt::Uninitialized);
            QRandomGenerator generator(7);
            generator.fillRange(reinterpret_cast<quint32*>(noise.data()), noise.size() / 4);
            store.write(noise);
            store.close();
        }
        const qint64 damagedSize = QFileInfo(file).size();

        g_warnings.clear();
        const QtMessageHandler previous = qInstallMessageHandler(KeepWarnings);
        CQMRegistryAgent agent;
        const bool written = agent.WriteString(true, kCompany, L"QMToken", L"after");
        qInstallMessageHandler(previous);
        QVERIFY(written);
        QCOMPARE(ReadCompany("QMToken"), QStringLiteral("after"));
        const QStringList aside = QDir(m_folder->Path()).entryList({"HKEY_CURRENT_USER.db.corrupt-*"}, QDir::Files);
        QCOMPARE(aside.size(), 1);
        QCOMPARE(QFileInfo(m_folder->Path() + "/" + aside.first()).size(), damagedSize);
        const QString warning = g_warnings.filter("corrupt").value(0);
        QVERIFY2(warning.contains(file) && warning.contains(m_folder->Path() + "/" + aside.first()),
                 qPrintable(g_warnings.join('\n')));
    }

    // The write-ahead log needs a writable folder; reading must not. Root writes
    // everywhere, so as root the reader runs as nobody, owner of the store.
    void readOnlyFolderStillReads()
    {
        QProcess writer;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(kWriterVariable, "kept");
        writer.setProcessEnvironment(environment);
        writer.start(QCoreApplication::applicationFilePath(), QStringList());
        QVERIFY(writer.waitForFinished(60000));
        QStringList prefix;
        if (::geteuid() == 0) {
            const QString setpriv = QStandardPaths::findExecutable("setpriv");
            if (setpriv.isEmpty())
                QSKIP("running as root without setpriv(1)");
            prefix = QStringList{setpriv, "--reuid=65534", "--regid=65534", "--clear-groups"};
            QVERIFY(::chown(QFile::encodeName(m_folder->Path()).constData(), 65534, 65534) == 0);
            for (const QString& file : QDir(m_folder->Path()).entryList(QDir::Files | QDir::Hidden))
                QVERIFY(::chown(QFile::encodeName(m_folder->Path() + "/" + file).constData(), 65534, 65534) == 0);
        }
        QVERIFY(QFile::setPermissions(m_folder->Path(), QFile::ReadOwner | QFile::ExeOwner));
        auto run = [&prefix](const QStringList& arguments, QByteArray* out) {
            QProcess cli;
            QStringList command = prefix + QStringList{QStringLiteral(QM_CLI_BINARY), "--json"} + arguments;
            cli.start(command.takeFirst(), command);
            cli.waitForFinished(30000);
            *out = cli.readAllStandardOutput();
            return cli.exitStatus() == QProcess::NormalExit ? cli.exitCode() : -1;
        };
        QByteArray out;
        const int read = run({"store", "get", "HKCU", "SOFTWARE\\Quillmarsh\\Shared", "kept-7"}, &out);
        const QByteArray value = out;
        const int written = run({"store", "set", "HKCU", "SOFTWARE\\Quillmarsh", "X", "y"}, &out);
        QFile::setPermissions(m_folder->Path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        QCOMPARE(read, 0);
        QVERIFY2(value.contains("\"7\""), value.constData());
        QCOMPARE(written, 1);
    }
};

int main(int argc, char** argv)
{
    const QByteArray writer = qgetenv(kWriterVariable);
    if (!writer.isEmpty())
        return RunWriter(QString::fromLatin1(writer));
    if (!qgetenv(kSaverVariable).isEmpty())
        return RunSaver();
    QCoreApplication application(argc, argv);
    TestStore test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_store.moc"
