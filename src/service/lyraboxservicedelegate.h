#pragma once

#include "core/error.h"

#include <QString>

#include <type_traits>

class LyraboxService;

// Receiver of the service client's callbacks, always called on the main thread.
//
// Every callback is optional: the defaults do nothing. A callback is sent only when
// respondsToOperation() says the delegate implements it. The default answer is "yes"
// for every operation; a delegate that wants the exact answer overrides it with
// `return implements<MyDelegate>(operation);`, which tells from the class itself which
// callbacks it overrides. It matters for one rule: the uploaded-digest list is reported
// only to a delegate that implements the sign-in callback as well.
//
// The service holds its delegate weakly: a delegate that is destroyed is forgotten by
// every service, so no queued callback reaches it afterwards.
class LyraboxServiceDelegate
{
public:
    enum class Operation {
        DidLogin,
        DidVerifyLogin,
        DidReceiveAuthorizationError,
        DidReadMd5List,
        DidFinishUpload,
        DidUpdateUploadProgress,
        DidUpdateRipProgress,
        DidExperienceExternalDriveError,
    };

    virtual ~LyraboxServiceDelegate();

    virtual bool respondsToOperation(Operation operation) const
    {
        Q_UNUSED(operation);
        return true;
    }

    virtual void lyraboxDidLogin(LyraboxService *service, const OptionalError &error)
    {
        Q_UNUSED(service);
        Q_UNUSED(error);
    }
    virtual void lyraboxDidVerifyLogin(LyraboxService *service, const OptionalError &error)
    {
        Q_UNUSED(service);
        Q_UNUSED(error);
    }
    virtual void lyraboxDidReceiveAuthorizationError(LyraboxService *service) { Q_UNUSED(service); }
    virtual void lyraboxDidReadMd5List(LyraboxService *service, const OptionalError &error)
    {
        Q_UNUSED(service);
        Q_UNUSED(error);
    }
    virtual void lyraboxDidFinishUpload(LyraboxService *service, const QString &filePath, const OptionalError &error)
    {
        Q_UNUSED(service);
        Q_UNUSED(filePath);
        Q_UNUSED(error);
    }
    // progress: whole percent.
    virtual void lyraboxDidUpdateUploadProgress(LyraboxService *service, const QString &filePath, int progress)
    {
        Q_UNUSED(service);
        Q_UNUSED(filePath);
        Q_UNUSED(progress);
    }
    virtual void lyraboxDidUpdateRipProgress(LyraboxService *service, const QString &filePath, int progress)
    {
        Q_UNUSED(service);
        Q_UNUSED(filePath);
        Q_UNUSED(progress);
    }
    virtual void lyraboxDidExperienceExternalDriveError(LyraboxService *service) { Q_UNUSED(service); }

    // Whether class D overrides the callback of `operation`: taking the address of a
    // member that D does not declare names the base class's member.
    template <class D> static constexpr bool implements(Operation operation)
    {
        using B = LyraboxServiceDelegate;
        switch (operation) {
        case Operation::DidLogin:
            return !std::is_same_v<decltype(&D::lyraboxDidLogin), decltype(&B::lyraboxDidLogin)>;
        case Operation::DidVerifyLogin:
            return !std::is_same_v<decltype(&D::lyraboxDidVerifyLogin), decltype(&B::lyraboxDidVerifyLogin)>;
        case Operation::DidReceiveAuthorizationError:
            return !std::is_same_v<decltype(&D::lyraboxDidReceiveAuthorizationError),
                                   decltype(&B::lyraboxDidReceiveAuthorizationError)>;
        case Operation::DidReadMd5List:
            return !std::is_same_v<decltype(&D::lyraboxDidReadMd5List), decltype(&B::lyraboxDidReadMd5List)>;
        case Operation::DidFinishUpload:
            return !std::is_same_v<decltype(&D::lyraboxDidFinishUpload), decltype(&B::lyraboxDidFinishUpload)>;
        case Operation::DidUpdateUploadProgress:
            return !std::is_same_v<decltype(&D::lyraboxDidUpdateUploadProgress),
                                   decltype(&B::lyraboxDidUpdateUploadProgress)>;
        case Operation::DidUpdateRipProgress:
            return !std::is_same_v<decltype(&D::lyraboxDidUpdateRipProgress),
                                   decltype(&B::lyraboxDidUpdateRipProgress)>;
        case Operation::DidExperienceExternalDriveError:
            return !std::is_same_v<decltype(&D::lyraboxDidExperienceExternalDriveError),
                                   decltype(&B::lyraboxDidExperienceExternalDriveError)>;
        }
        return false;
    }
};
