// Codecs: lz decode, urlscheme encode|decode.
#include "Cli.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace Cli {

namespace {

// Larger inputs are not replies this tool is meant to look at.
constexpr qint64 kMaxInputBytes = 64 * 1024 * 1024;

int LzDecode(Context& c)
{
    QByteArray bytes;
    QString error;
    if (!ReadSmallFile(c.Arg(0), kMaxInputBytes, bytes, error))
        return c.Fail(QStringLiteral("input"), error);
    QString compressed;
    if (c.Has(QStringLiteral("json-string"))) {
        // A JSON string literal, as it stands in a reply's "result".
        const QJsonDocument document = QJsonDocument::fromJson("[" + bytes.trimmed() + "]");
        if (!document.isArray() || !document.array().at(0).isString())
            return c.Fail(QStringLiteral("input"), QStringLiteral("%1 does not hold one JSON string").arg(c.Arg(0)));
        compressed = document.array().at(0).toString();
    } else {
        if (bytes.size() % 2 != 0)
            return c.Fail(QStringLiteral("input"),
                          QStringLiteral("%1 has an odd number of bytes: not UTF-16LE").arg(c.Arg(0)));
        compressed.resize(bytes.size() / 2);
        for (int i = 0; i < compressed.size(); ++i)
            compressed[i] = QChar(static_cast<ushort>(uchar(bytes[2 * i]) | uchar(bytes[2 * i + 1]) << 8));
    }
    const QString text = CQMMemberWebService::DecompressReplyText(compressed);
    if (text.isNull())
        return c.Fail(QStringLiteral("corrupt"),
                      QStringLiteral("corrupt stream: a back-reference points outside the dictionary"));
    if (text.isEmpty() && !compressed.isEmpty())
        PrintError(QStringLiteral("the stream ends before its end marker, or encodes an empty text"));
    c.Out().Body(QStringLiteral("decoded"), text);
    return c.Ok();
}

int UrlScheme(Context& c, bool encode)
{
    const QString result =
        encode ? CQMMemberWebService::EncryptUrlScheme(c.Arg(0)) : CQMMemberWebService::DecryptUrlScheme(c.Arg(0));
    if (result.isEmpty())
        return c.Fail(QStringLiteral("input"),
                      encode ? QStringLiteral("nothing to encode")
                             : QStringLiteral("not a token: it must be uppercase hexadecimal of even length"));
    c.Out().Field(encode ? QStringLiteral("token") : QStringLiteral("decoded"), result);
    return c.Ok();
}

} // namespace

QList<Command> CodecCommands()
{
    Command lz;
    lz.name = QStringLiteral("lz decode");
    lz.synopsis = QStringLiteral("FILE [--json-string]");
    lz.summary = QStringLiteral("decode an lz-string UTF-16 text (UTF-16LE bytes, or a JSON string)");
    lz.help = QStringLiteral("FILE may hold at most 64 MiB.");
    lz.options = {QCommandLineOption(QStringLiteral("json-string"),
                                     QStringLiteral("FILE holds a JSON string literal, as in a reply's \"result\""))};
    lz.run = LzDecode;
    lz.minArgs = lz.maxArgs = 1;
    lz.store = StoreUse::None;

    Command encode;
    encode.name = QStringLiteral("urlscheme encode");
    encode.synopsis = QStringLiteral("TEXT");
    encode.summary = QStringLiteral("encipher TEXT into a URL-scheme token");
    encode.run = [](Context& c) { return UrlScheme(c, true); };
    encode.minArgs = encode.maxArgs = 1;
    encode.store = StoreUse::None;
    Command decode = encode;
    decode.name = QStringLiteral("urlscheme decode");
    decode.synopsis = QStringLiteral("TOKEN");
    decode.summary = QStringLiteral("decipher a URL-scheme token");
    decode.run = [](Context& c) { return UrlScheme(c, false); };
    return {lz, encode, decode};
}

} // namespace Cli
