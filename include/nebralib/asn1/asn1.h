// The X.509 model: certificates and names decoded from strict DER, OIDs, tags and the ASN.1
// error events.
#pragma once

#include "nebralib/asn1/certificate.h"
#include "nebralib/asn1/tag.h"
#include "nebralib/asn1/tarnerror.h"
