#include "LZString/LZString.h"

#include <QCryptographicHash>
#include <QFile>
#include <QtTest>

#ifdef Q_OS_UNIX
#include <sys/resource.h>
#endif

namespace {

QString ReadUtf16(const QString& file)
{
    QFile in(file);
    if (!in.open(QIODevice::ReadOnly))
        return QString();
    const QByteArray bytes = in.readAll();
    return QString(reinterpret_cast<const QChar*>(bytes.constData()), bytes.size() / 2);
}

// Builds a stream as the encoder would: numbers least significant bit first,
// 15 bits to a character (or as many as a reset value gives), offset by 32.
class Stream
{
public:
    explicit Stream(int bitsPerCharacter = 15)
        : m_bits(bitsPerCharacter)
    {
    }
    Stream& Bits(int value, int count)
    {
        for (int i = 0; i < count; ++i) {
            m_value = (m_value << 1) | ((value >> i) & 1);
            if (++m_position == m_bits) {
                m_text.append(QChar(ushort(m_value + 32)));
                m_value = 0;
                m_position = 0;
            }
        }
        return *this;
    }
    QString Done()
    {
        QString text = m_text;
        if (m_position > 0)
            text.append(QChar(ushort((m_value << (m_bits - m_position)) + 32)));
        return text;
    }

private:
    int m_bits;
    QString m_text;
    int m_value = 0;
    int m_position = 0;
};

// "x" and then \a n references to it, ended by \a last (2: the end marker)
// unless \a last is negative: long streams that give short texts.
QString Repeats(int n, int last = 2, int bitsPerCharacter = 15)
{
    Stream stream(bitsPerCharacter);
    stream.Bits(0, 2).Bits('x', 8);
    int dictSize = 4;
    int numBits = 3;
    for (int i = 0; i < n; ++i) {
        stream.Bits(3, numBits);
        if (++dictSize == 1 << numBits)
            ++numBits;
    }
    if (last >= 0)
        stream.Bits(last == 2 ? 2 : dictSize + 1, numBits);
    return stream.Done();
}

// "x" and then \a n self-references: phrases of 2, 3 .. n + 1 characters.
QString SelfReferences(int n)
{
    Stream stream;
    stream.Bits(0, 2).Bits('x', 8);
    int dictSize = 4;
    int enlargeIn = 4;
    int numBits = 3;
    for (int i = 0; i < n; ++i) {
        stream.Bits(dictSize++, numBits);
        if (--enlargeIn == 0) {
            enlargeIn = 1 << numBits;
            ++numBits;
        }
    }
    return stream.Bits(2, numBits).Done();
}

long PeakKiB()
{
#ifdef Q_OS_UNIX
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
#else
    return 0;
#endif
}

} // namespace

class TestLZString : public QObject
{
    Q_OBJECT

private slots:
    void referenceVectors_data()
    {
        QTest::addColumn<QString>("file");
        QTest::addColumn<QString>("kind");
        QTest::addColumn<int>("length");
        QTest::addColumn<QByteArray>("sha256");
        QFile manifest(QStringLiteral(QM_TEST_DATA "/lzstring/manifest.tsv"));
        QVERIFY(manifest.open(QIODevice::ReadOnly | QIODevice::Text));
        while (!manifest.atEnd()) {
            const QList<QByteArray> columns = manifest.readLine().trimmed().split('\t');
            if (columns.size() < 3 || columns.at(0).startsWith('#'))
                continue;
            QTest::newRow(columns.at(0).constData())
                << QStringLiteral(QM_TEST_DATA "/lzstring/") + QString::fromLatin1(columns.at(0)) + ".bin"
                << QString::fromLatin1(columns.at(1)) << columns.at(2).toInt() << columns.value(3);
        }
    }
    void referenceVectors()
    {
        QFETCH(QString, file);
        QFETCH(QString, kind);
        QFETCH(int, length);
        QFETCH(QByteArray, sha256);
        const QString decoded = LZString::decompressFromUTF16(ReadUtf16(file));
        if (kind == QLatin1String("null")) {
            QVERIFY(decoded.isNull());
        } else if (kind == QLatin1String("empty")) {
            QVERIFY(decoded.isEmpty());
            QVERIFY(!decoded.isNull());
        } else {
            QCOMPARE(decoded.size(), length);
            const QByteArray bytes(reinterpret_cast<const char*>(decoded.utf16()), decoded.size() * 2);
            QCOMPARE(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex(), sha256);
        }
    }

    void craftedStreams_data()
    {
        QTest::addColumn<QString>("stream");
        QTest::addColumn<QString>("expected"); // "<null>" for a null result
        QTest::newRow("header 2") << Stream().Bits(2, 2).Done() << "";
        QTest::newRow("header 3, then a literal")
            << Stream().Bits(3, 2).Bits(0, 3).Bits('a', 8).Bits(2, 3).Done() << "a";
        QTest::newRow("header 3, then its empty phrase") << Stream().Bits(3, 2).Bits(3, 3).Done() << "<null>";
        QTest::newRow("header 3, then a self-reference") << Stream().Bits(3, 2).Bits(4, 3).Bits(2, 3).Done() << "";
        QTest::newRow("self-references") << Stream().Bits(0, 2).Bits('x', 8).Bits(4, 3).Bits(5, 3).Bits(2, 3).Done()
                                         << "xxxxxx";
        QTest::newRow("beyond the next code") << Stream().Bits(0, 2).Bits('x', 8).Bits(6, 3).Done() << "<null>";
        QTest::newRow("16-bit literal") << Stream().Bits(1, 2).Bits(0x4e2d, 16).Bits(2, 3).Done() << "\u4e2d";
        QTest::newRow("no end marker") << Stream().Bits(0, 2).Bits('x', 8).Bits(3, 3).Done() << "";
        // Streams of over 4096 characters take the decoder's two-pass road.
        QTest::newRow("long stream") << Repeats(6000) << QString(6001, QLatin1Char('x'));
        QTest::newRow("long stream, beyond the next code") << Repeats(6000, 0) << "<null>";
        // 5998 codes end on a character's last bit: nothing past the end is read as a code.
        QTest::newRow("long stream, no end marker") << Repeats(5998, -1) << "";
    }
    void craftedStreams()
    {
        QFETCH(QString, stream);
        QFETCH(QString, expected);
        const QString decoded = LZString::decompressFromUTF16(stream);
        if (expected == QLatin1String("<null>")) {
            QVERIFY(decoded.isNull());
        } else {
            QCOMPARE(decoded, expected);
            QVERIFY(!decoded.isNull());
        }
    }

    void outputLimit_data()
    {
        QTest::addColumn<QString>("stream");
        QTest::addColumn<qint64>("limit"); // 0: the default, for replies
        QTest::addColumn<int>("length");   // -1: a null result
        QTest::newRow("at the limit") << SelfReferences(100) << qint64(5151) << 5151;
        QTest::newRow("one over the limit") << SelfReferences(100) << qint64(5150) << -1;
        // 35 KB of stream that would decode to 200 Mi characters (400 MB).
        QTest::newRow("over the default limit") << SelfReferences(20000) << qint64(0) << -1;
        QTest::newRow("long stream at the limit") << Repeats(6000) << qint64(6001) << 6001;
        QTest::newRow("long stream one over the limit") << Repeats(6000) << qint64(6000) << -1;
    }
    void outputLimit()
    {
        QFETCH(QString, stream);
        QFETCH(qint64, limit);
        QFETCH(int, length);
        const long peakBefore = PeakKiB();
        const QString decoded
            = limit ? LZString::decompressFromUTF16(stream, limit) : LZString::decompressFromUTF16(stream);
        if (length < 0) {
            QVERIFY(decoded.isNull());
        } else {
            QCOMPARE(decoded, QString(length, QLatin1Char('x')));
        }
        // It stops before the text is built, not after.
        QVERIFY2(PeakKiB() - peakBefore < 32 * 1024, qPrintable(QString::number(PeakKiB() - peakBefore)));
    }

    void emptyInputAndConstants()
    {
        const QString empty = LZString::decompressFromUTF16(QString());
        QVERIFY(empty.isEmpty() && !empty.isNull());
        QCOMPARE(LZString::keyStrBase64.size(), 65);
        QCOMPARE(LZString::keyStrUriSafe.size(), 65);
        QVERIFY(LZString::keyStrBase64.endsWith(QLatin1String("+/=")));
        QVERIFY(LZString::keyStrUriSafe.endsWith(QLatin1String("+-$")));
    }

    void otherResetValues_data()
    {
        QTest::addColumn<QString>("stream");
        QTest::addColumn<QString>("expected");
        // 8 payload bits a character: header 0, 'a', end marker 2.
        QTest::newRow("short") << Stream(8).Bits(0, 2).Bits('a', 8).Bits(2, 3).Done() << "a";
        QTest::newRow("long") << Repeats(6000, 2, 8) << QString(6001, QLatin1Char('x'));
    }
    void otherResetValues()
    {
        QFETCH(QString, stream);
        QFETCH(QString, expected);
        QCOMPARE(LZString::_decompress(stream.size(), 128, stream.constData()), expected);
    }
};

QTEST_GUILESS_MAIN(TestLZString)
#include "tst_lzstring.moc"
