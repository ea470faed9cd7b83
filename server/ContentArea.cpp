// The content service area of qmmember-server.
#include "ContentCatalogue.h"
#include "MemberServer.h"

namespace {

class ContentArea : public ServiceArea
{
public:
    explicit ContentArea(MemberServer& server)
        : m_server(server)
    {
    }

    bool Open(std::string& error) override
    {
        return m_server.State().WithDatabase([&](sqlite3* db) { return ContentCatalogue::EnsureTables(db, error); });
    }
    void AddRoutes(httplib::Server&, bool) override {}

private:
    MemberServer& m_server;
};

} // namespace

std::unique_ptr<ServiceArea> MakeContentArea(MemberServer& server)
{
    return std::make_unique<ContentArea>(server);
}
