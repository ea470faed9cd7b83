#pragma once
// A service object for the fuzz targets: a private store, no network. The probe of an
// unreachable host clears the connectivity flags, so an expired-token answer ends in
// "no internet" at once instead of a refresh request.
#include "QMMemberWebService.h"

#include <QDir>
#include <QTemporaryDir>

#include <cstdlib>

class FuzzService : public CQMMemberWebService
{
public:
    using CQMMemberWebService::CQMMemberWebService;
    using CQMMemberWebService::ExtractApiResult;
    using CQMMemberWebService::ParseJsonResult;

    static FuzzService& Instance()
    {
        // Memory-backed when there is /dev/shm: the cache-file target writes files on every input.
        static QTemporaryDir folder(QDir(QStringLiteral("/dev/shm")).exists() ? QStringLiteral("/dev/shm/qmfuzz-XXXXXX")
                                                                              : QDir::tempPath() + "/qmfuzz-XXXXXX");
        static bool prepared = [] {
            qputenv("QM_REGISTRY_DIR", QFile::encodeName(folder.path() + "/registry"));
            qputenv("QM_API_HOST", "127.0.0.1:1");
            qputenv("QM_WEB_HOST", "127.0.0.1:1");
            CQMMemberWebService::SetCacheFolderPath(folder.path() + "/cache/");
            QDir().mkpath(folder.path() + "/cache");
            CQMMemberWebService::SetCheckCurrentInternetConnection(true);
            CQMMemberWebService::CheckInternetConnection(1000, false, false);
            return true;
        }();
        (void)prepared;
        static FuzzService service(0);
        return service;
    }
};
