#!/usr/bin/env bash
# Writes a small throwaway PKI as DER files into OUTDIR:
#   root.der            self-signed root CA (keyCertSign)
#   ca.der              intermediate CA signed by root (keyCertSign)
#   leaf1.der leaf2.der end-entity certificates signed by ca (digitalSignature, keyEncipherment)
#   leaf3.der           end-entity certificate without a key on the token
#   selfsigned.der      self-signed end-entity certificate (no CA bits)
#   bc-only-ca.der      CA by basic constraints only (no key usage), signed by root
#   ku-no-certsign.der  key usage without keyCertSign but basic constraints cA=TRUE, signed by root
#   certsign-not-ca.der key usage with keyCertSign but basic constraints cA=FALSE, signed by root
# Usage: make-pki.sh OUTDIR
set -euo pipefail
out=$1
mkdir -p "$out"
cd "$out"
[ -f .done-2 ] && exit 0
cat > ext.cnf <<'CNF'
[root]
basicConstraints=critical,CA:TRUE
keyUsage=critical,keyCertSign,cRLSign
subjectKeyIdentifier=hash
[ca]
basicConstraints=critical,CA:TRUE,pathlen:0
keyUsage=critical,keyCertSign,cRLSign
[leaf]
basicConstraints=CA:FALSE
keyUsage=critical,digitalSignature,keyEncipherment
[selfsigned]
keyUsage=digitalSignature
[bconly]
basicConstraints=critical,CA:TRUE
[kunocertsign]
basicConstraints=critical,CA:TRUE
keyUsage=critical,digitalSignature
[certsignnotca]
basicConstraints=critical,CA:FALSE
keyUsage=critical,digitalSignature,keyCertSign
CNF
key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1.key" 2>/dev/null; }
selfsign() { # name subject section
  key "$1"
  openssl req -new -x509 -key "$1.key" -subj "$2" -days 3650 -sha256 \
    -extensions "$3" -config <(cat /etc/ssl/openssl.cnf ext.cnf) -outform DER -out "$1.der" 2>/dev/null
}
issue() { # name subject issuer section
  key "$1"
  openssl req -new -key "$1.key" -subj "$2" -out "$1.csr" 2>/dev/null
  openssl x509 -req -in "$1.csr" -CA "$3.pem" -CAkey "$3.key" -CAcreateserial -days 3650 -sha256 \
    -extfile ext.cnf -extensions "$4" -outform DER -out "$1.der" 2>/dev/null
}
pem() { openssl x509 -inform DER -in "$1.der" -out "$1.pem"; }
selfsign root "/C=ES/O=Nebra Test/CN=Nebra Test Root" root; pem root
issue ca "/C=ES/O=Nebra Test/CN=Nebra Test Issuing CA" root ca; pem ca
issue leaf1 "/C=ES/O=Nebra Test/CN=Alice Signing" ca leaf
issue leaf2 "/C=ES/O=Nebra Test/CN=Bob Encryption" ca leaf
issue leaf3 "/C=ES/O=Nebra Test/CN=Carol No Key" ca leaf
selfsign selfsigned "/O=Nebra Test/CN=Self Signed Device" selfsigned
issue bc-only-ca "/O=Nebra Test/CN=Basic Constraints CA" root bconly
issue ku-no-certsign "/O=Nebra Test/CN=Key Usage Without CertSign" root kunocertsign
issue certsign-not-ca "/O=Nebra Test/CN=CertSign Without CA" root certsignnotca
touch .done-2
