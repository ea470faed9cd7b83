#include "ServerFixture.h"
#include "registry/QMRegistryAgent.h"
#include "registry/RegistryStore.h"

#include <QProcess>
#include <QtTest>

#include <sys/stat.h>

using QMRegistryTool::CQMRegistryAgent;

namespace {
constexpr int kValuesPerWriter = 1000;
const char* const kWriterVariable = "QM_STORE_TEST_WRITER";

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
};

int main(int argc, char** argv)
{
    const QByteArray writer = qgetenv(kWriterVariable);
    if (!writer.isEmpty())
        return RunWriter(QString::fromLatin1(writer));
    QCoreApplication application(argc, argv);
    TestStore test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_store.moc"
