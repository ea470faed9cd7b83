#pragma once

#include <QByteArray>
#include <QJsonDocument>
#include <QSet>
#include <QString>
#include <QStringView>
#include <QVarLengthArray>

#include <vector>

// Qt 5.15's JSON parser leaks the earlier value when an object repeats a key whose
// value was a non-empty array or object. Outside input is read through ParseJson,
// which refuses a text that repeats a key in an object (a null document, as for any
// malformed text) before Qt's parser sees it.
namespace QMSafeJson {

namespace Detail {

inline int HexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Reads the string that starts at text[i] (a '"'); leaves i after its closing quote.
// Into \a out (when given) with the escapes decoded, so that "a" and "\u0061" are one key.
inline bool ReadString(const QByteArray& text, int& i, QString* out)
{
    // Most strings hold no escape: those are read in one piece, not a copy per character.
    const char* const data = text.constData();
    int end = i + 1;
    while (end < text.size() && data[end] != '"' && data[end] != '\\')
        ++end;
    if (end < text.size() && data[end] == '"') {
        if (out) {
            const char* const begin = data + i + 1;
            const int length = end - i - 1;
            bool ascii = true;
            for (int k = 0; k < length && ascii; ++k)
                ascii = static_cast<unsigned char>(begin[k]) < 0x80;
            if (ascii)
                out->append(QLatin1String(begin, length)); // the same text, without a decoder's copy
            else
                out->append(QString::fromUtf8(begin, length));
        }
        i = end + 1;
        return true;
    }
    QByteArray plain;
    for (++i; i < text.size(); ++i) {
        const char c = text.at(i);
        if (c == '"') {
            ++i;
            if (out)
                out->append(QString::fromUtf8(plain));
            return true;
        }
        if (c != '\\') {
            if (out)
                plain.append(c);
            continue;
        }
        if (++i >= text.size())
            return false;
        const char e = text.at(i);
        if (!out) {
            continue; // skipped: the escaped character cannot end the string
        } else if (e == 'u') {
            if (i + 4 >= text.size())
                return false;
            int unit = 0;
            for (int k = 1; k <= 4; ++k) {
                const int v = HexValue(text.at(i + k));
                if (v < 0)
                    return false;
                unit = unit * 16 + v;
            }
            out->append(QString::fromUtf8(plain));
            plain.clear();
            out->append(QChar(static_cast<ushort>(unit)));
            i += 4;
        } else {
            plain.append(e); // the other escapes stand for one character each
        }
    }
    return false;
}

} // namespace Detail

/// True when some object of \a text repeats a key. A text that is no JSON may answer
/// either way; Qt's parser refuses it then.
inline bool RepeatsKey(const QByteArray& text)
{
    // An object's few keys are compared in place, one after another in `names` (no hash and no
    // string per key); an object with many gets a set.
    constexpr size_t kFewKeys = 16;
    struct Key {
        qsizetype offset;
        qsizetype length;
    };
    struct Frame {
        bool object;
        bool expectKey;
        size_t firstKey; // its keys in `keys` from here, while they are few
        int many; // its set in `sets` once it has many keys, else -1
    };
    // On the stack for the usual reply; the sets of open objects nest as the frames do.
    QVarLengthArray<Frame, 32> stack;
    QVarLengthArray<Key, 64> keys; // the few keys of the open objects, innermost last
    std::vector<QSet<QString>> sets;
    QString names;
    const auto drop = [&keys, &names](size_t first) {
        if (first < size_t(keys.size()))
            names.truncate(keys[int(first)].offset);
        keys.resize(int(first));
    };
    for (int i = 0; i < text.size();) {
        const char c = text.at(i);
        if (c == '"') {
            const bool key = !stack.isEmpty() && stack.back().object && stack.back().expectKey;
            const qsizetype offset = names.size();
            if (!Detail::ReadString(text, i, key ? &names : nullptr))
                return false;
            if (key) {
                Frame& frame = stack.back();
                const QStringView name = QStringView(names).mid(offset);
                if (frame.many >= 0) {
                    const QString copy = name.toString();
                    names.truncate(offset);
                    QSet<QString>& set = sets[size_t(frame.many)];
                    if (set.contains(copy))
                        return true;
                    set.insert(copy);
                } else {
                    for (int k = int(frame.firstKey); k < keys.size(); ++k) {
                        if (QStringView(names).mid(keys[k].offset, keys[k].length) == name)
                            return true;
                    }
                    keys.append(Key{offset, names.size() - offset});
                    if (size_t(keys.size()) - frame.firstKey > kFewKeys) {
                        frame.many = int(sets.size());
                        sets.emplace_back();
                        for (int k = int(frame.firstKey); k < keys.size(); ++k)
                            sets.back().insert(QStringView(names).mid(keys[k].offset, keys[k].length).toString());
                        drop(frame.firstKey);
                    }
                }
                frame.expectKey = false;
            }
            continue;
        }
        if (c == '{' || c == '[') {
            if (stack.size() >= 4096)
                return false; // deeper than Qt's parser goes; it refuses the text
            stack.append(Frame{c == '{', c == '{', size_t(keys.size()), -1});
        } else if ((c == '}' || c == ']') && !stack.isEmpty()) {
            drop(stack.back().firstKey);
            if (stack.back().many >= 0)
                sets.pop_back();
            stack.removeLast();
        } else if (c == ',' && !stack.isEmpty() && stack.back().object) {
            stack.back().expectKey = true;
        }
        ++i;
    }
    return false;
}

/// QJsonDocument::fromJson, except that a text repeating a key in an object is malformed.
inline QJsonDocument ParseJson(const QByteArray& utf8, QJsonParseError* error = nullptr)
{
    if (RepeatsKey(utf8)) {
        if (error) {
            error->error = QJsonParseError::IllegalValue;
            error->offset = 0;
        }
        return QJsonDocument();
    }
    return QJsonDocument::fromJson(utf8, error);
}

} // namespace QMSafeJson
