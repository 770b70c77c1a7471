// nebralib: keeps a user's certificate stores in step with the certificates on a PKCS#11 token.
// This header declares everything the library exports.
#pragma once

#include "nebralib/asn1/asn1.h"
#include "nebralib/asn1/certificate.h"
#include "nebralib/buffer/buffer.h"
#include "nebralib/buffer/codecs.h"
#include "nebralib/certitem.h"
#include "nebralib/certstorehelper.h"
#include "nebralib/codeverifier.h"
#include "nebralib/events/certstoreupdatererror.h"
#include "nebralib/events/genericevent.h"
#include "nebralib/messages.h"
#include "nebralib/mspermissions.h"
#include "nebralib/nebra.h"
#include "nebralib/pkcs11/client.h"
#include "nebralib/pkcs11helper.h"
#include "nebralib/syncengine.h"
#include "nebralib/tokens.h"
#include "nebralib/tokensession.h"
#include "nebralib/tokenstore.h"
