#pragma once

#include "cd/plcid3tag.h"

#include <QString>

#include <optional>

// The parameters of one upload, filled by the service client. A null text is
// an absent value: the envelope prints it as "(null)" where it must appear,
// and leaves out the optional fields it stands for.
struct AsyncUploadRequestConfiguration
{
    QString uploadURL;          // the upload endpoint; the request URL is parsed from it
    QString filePath;           // the local file, or a CD track's path on its disc volume
    QString sanitizedFilePath;  // sent as "file_path"
    QString userId;             // "user_id"
    QString userToken;          // "token"
    QString clientName;         // "client"
    QString deviceName;         // "device_name"
    QString userAgent;          // "user_agent" and the User-Agent header
    QString versionString;      // "version"
    QString createPlaylistName; // when set: "playlist-name" and "playlist-order"
    QString createTagName;      // when set: "tag-name"
    // Set for CD tracks only; names the uploaded file "<title>.flac".
    std::optional<PLCID3Tag> ID3Tags;
    QString playlistOrder;           // a number as text; sent only with createPlaylistName
    bool reuploadDuplicates = false; // sends "reupload" = "1"
    bool isRetry = false;            // the operation waits before it starts
};
