#pragma once
// The content catalogue of qmmember-server, shared by the content area (which reads
// it) and the upload area (which adds what members publish).

#include <QJsonObject>
#include <QString>

#include <sqlite3.h>

#include <string>

class ServerState;

namespace ContentCatalogue {

/// Creates the catalogue's tables when they are missing; false with \a error.
/// The caller holds the database (ServerState::WithDatabase).
bool EnsureTables(sqlite3* db, std::string& error);

/// One content item as its owner publishes it.
struct PublishedItem {
    QString contentId;   ///< unique; publishing an existing ID again replaces its record
    QString productId;
    QString version;     ///< the product version, as text ("8")
    int typeId = 0;
    int categoryId = 0;
    QString title;
    QString ownerMid;    ///< the publishing member: the item becomes part of their own content
    double price = 0;    ///< 0: free
    bool forSale = true;
    QString sha256;      ///< hex SHA-256 of the uploaded file; empty: derived from the ID
    QJsonObject metadata; ///< handed back unchanged by the metadata calls
};

/// Adds \a item to the catalogue as a member's own content with its metadata. A new ID
/// starts at file version 1; an ID already in the catalogue gets its next file version
/// (which its earlier fetchers then see as new). Takes the state's lock itself.
/// \a fileVersion receives the item's file version. False with \a error on failure.
bool AddPublishedItem(ServerState& state, const PublishedItem& item, int& fileVersion, std::string& error);

/// The same inside a WithDatabase call that holds \a db already.
bool AddPublishedItemLocked(sqlite3* db, const PublishedItem& item, int& fileVersion, std::string& error);

} // namespace ContentCatalogue
