#!/usr/bin/env bash
# Makes the signed-file corpus of the code-verifier tests in OUTDIR, offline: a throwaway PKI made
# with `openssl ca` (root, intermediate, code-signing leaves, a TSA, and a second root that is never
# trusted), small PE32 / PE32+ images written by corpus.py, signatures by osslsigncode, and
# timestamps made by openssl and inserted by corpus.py (osslsigncode 2.5 can only timestamp through
# an HTTP server).
#
#   make_corpus.sh OUTDIR
#
# OUTDIR/meta.txt records the generation time T0 and the instant at which the short-lived leaf has
# expired (T0 + 2 days); OUTDIR/trust/ holds the roots.
set -euo pipefail
OUT=$(realpath -m "$1")
HERE=$(cd "$(dirname "$0")" && pwd)
PY="python3 $HERE/corpus.py"
SIGN=${OSSLSIGNCODE:-osslsigncode}

rm -rf "$OUT.tmp"
mkdir -p "$OUT.tmp"
cd "$OUT.tmp"
mkdir -p pki trust work
export CADIR=pki  # every openssl command reads the configuration below

T0=$(date -u +%s)
stamp() { date -u -d "@$1" +%Y%m%d%H%M%SZ; }
START=$(stamp $((T0 - 86400)))

cat >pki/ca.cnf <<'EOF'
[ ca ]
default_ca = CA_default
[ CA_default ]
dir = $ENV::CADIR
database = $dir/index.txt
serial = $dir/serial
new_certs_dir = $dir
default_md = sha256
policy = policy_any
unique_subject = no
email_in_dn = no
copy_extensions = none
[ policy_any ]
commonName = supplied
organizationName = optional
[ req ]
distinguished_name = dn
prompt = no
[ dn ]
CN = unused
[ v3_root ]
basicConstraints = critical, CA:true
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[ v3_inter ]
basicConstraints = critical, CA:true, pathlen:0
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid:always
[ v3_codesign ]
basicConstraints = CA:false
keyUsage = critical, digitalSignature
extendedKeyUsage = codeSigning
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
[ v3_server ]
basicConstraints = CA:false
keyUsage = critical, digitalSignature, keyEncipherment
extendedKeyUsage = serverAuth
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
[ v3_tsa ]
basicConstraints = CA:false
keyUsage = critical, digitalSignature
extendedKeyUsage = critical, timeStamping
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
EOF

key() {  # key NAME {rsa|ec}
  if [ "$2" = ec ]; then
    openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "pki/$1.key" 2>/dev/null
  else
    openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out "pki/$1.key" 2>/dev/null
  fi
}
newca() {  # newca DIR
  mkdir -p "pki/$1"
  : >"pki/$1/index.txt"
  echo 1000 >"pki/$1/serial"
}
# issue NAME CN CA EXT [openssl ca date options...]: key and certificate NAME issued by CA.
issue() {
  local name=$1 cn=$2 ca=$3 ext=$4
  shift 4
  openssl req -new -config pki/ca.cnf -key "pki/$name.key" -subj "/O=nebralib tests/CN=$cn" \
    -out "pki/$name.csr"
  CADIR=pki/$ca openssl ca -batch -notext -config pki/ca.cnf -cert "pki/$ca.pem" \
    -keyfile "pki/$ca.key" -extensions "$ext" -startdate "$START" "$@" -in "pki/$name.csr" \
    -out "pki/$name.pem" 2>/dev/null
}
selfsigned() {  # selfsigned NAME CN
  newca "$1"
  openssl req -new -config pki/ca.cnf -key "pki/$1.key" -subj "/O=nebralib tests/CN=$2" \
    -out "pki/$1.csr"
  CADIR=pki/$1 openssl ca -batch -notext -selfsign -config pki/ca.cnf -keyfile "pki/$1.key" \
    -extensions v3_root -startdate "$START" -days 7300 -in "pki/$1.csr" -out "pki/$1.pem" \
    2>/dev/null
}

key root rsa
selfsigned root "Test Root"
key inter rsa
issue inter "Test Intermediate" root v3_inter -days 7300
newca inter
key leaf rsa
issue leaf "Test Code Signer" inter v3_codesign -days 3650
key leafec ec
issue leafec "Test Code Signer EC" inter v3_codesign -days 3650
key short rsa
issue short "Test Short-lived Signer" inter v3_codesign -enddate "$(stamp $((T0 + 86400)))"
key server ec
issue server "Test Server" inter v3_server -days 3650
key tsa rsa
issue tsa "Test Timestamping Authority" inter v3_tsa -days 3650
key other ec
selfsigned other "Untrusted Root"
key otherleaf ec
issue otherleaf "Signer Under Untrusted Root" other v3_codesign -days 3650

cat pki/leaf.pem pki/inter.pem >pki/leaf-chain.pem
cat pki/leafec.pem pki/inter.pem >pki/leafec-chain.pem
cat pki/short.pem pki/inter.pem >pki/short-chain.pem
cat pki/server.pem pki/inter.pem >pki/server-chain.pem
cat pki/otherleaf.pem >pki/otherleaf-chain.pem
cp pki/root.pem trust/root.pem
openssl x509 -in pki/root.pem -outform DER -out trust/root.der
cp pki/other.pem trust/other-root.pem
openssl x509 -in pki/other.pem -outform DER -out trust/other-root.der

$PY mkpe pe32 work/pe32.exe
$PY mkpe pe32plus work/pe32plus.exe

sign() {  # sign SIGNER HASH IN OUT [extra osslsigncode options]
  local signer=$1 hash=$2 in=$3 out=$4
  shift 4
  $SIGN sign -certs "pki/$signer-chain.pem" -key "pki/$signer.key" -h "$hash" \
    -n "nebralib test" "$@" -in "$in" -out "$out" >/dev/null
}

sign leaf sha256 work/pe32.exe valid-sha256-pe32.exe
sign leaf sha256 work/pe32plus.exe valid-sha256-pe32plus.exe
sign leaf sha1 work/pe32plus.exe valid-sha1.exe
sign leafec sha256 work/pe32plus.exe valid-ecdsa.exe

cp valid-sha256-pe32plus.exe checksum-tampered.exe
$PY set-checksum checksum-tampered.exe 0x12345678
cp valid-sha256-pe32plus.exe section-flipped.exe
$PY flip section-flipped.exe section
cp valid-sha256-pe32.exe timedatestamp-flipped.exe
$PY flip timedatestamp-flipped.exe timestamp
cp valid-sha256-pe32plus.exe sigvalue-flipped.exe
$PY flip-sigvalue sigvalue-flipped.exe
cp valid-sha256-pe32plus.exe two-signerinfos.exe
$PY second-signer two-signerinfos.exe
cp valid-sha256-pe32plus.exe appended.exe
$PY append appended.exe 16
cp valid-sha256-pe32plus.exe truncated-table.exe
$PY truncate truncated-table.exe 16
cp work/pe32plus.exe unsigned.exe
# A signature algorithm that names another digest than the signer's (the signature is unchanged).
cp valid-sha256-pe32plus.exe sigalg-sha1rsa-over-sha256.exe
$PY set-sigalg sigalg-sha1rsa-over-sha256.exe 1.2.840.113549.1.1.5
cp valid-ecdsa.exe sigalg-ecdsasha1-over-sha256.exe
$PY set-sigalg sigalg-ecdsasha1-over-sha256.exe 1.2.840.10045.4.1
# The table's boundaries: right after its own directory entry, and 7 or 8 bytes of padding.
$PY mkpe bare work/bare.exe
sign leaf sha256 work/bare.exe table-after-entry.exe
for n in 7 8; do
  cp valid-sha256-pe32plus.exe "padding-$n.exe"
  $PY pad "padding-$n.exe" $n
done

sign otherleaf sha256 work/pe32plus.exe untrusted-root.exe
$SIGN sign -certs pki/leaf.pem -key pki/leaf.key -h sha256 -n "nebralib test" \
  -in work/pe32plus.exe -out missing-intermediate.exe >/dev/null
sign server sha256 work/pe32plus.exe serverauth-eku.exe

sign short sha256 work/pe32plus.exe expired-no-ts.exe
for kind in rfc3161 pkcs9; do
  sign short sha256 work/pe32plus.exe "expired-ts-$kind.exe"
  $PY timestamp "expired-ts-$kind.exe" "$kind" pki/tsa.pem pki/tsa.key pki/inter.pem work
done
# A countersignature by a certificate that is no timestamping authority.
sign short sha256 work/pe32plus.exe expired-ts-not-tsa.exe
$PY timestamp expired-ts-not-tsa.exe pkcs9 pki/leaf.pem pki/leaf.key pki/inter.pem work
sign leaf sha256 work/pe32plus.exe valid-ts-rfc3161.exe
$PY timestamp valid-ts-rfc3161.exe rfc3161 pki/tsa.pem pki/tsa.key pki/inter.pem work

# MD5, which Windows refuses for Authenticode: as the file digest, in a signature of the signer's
# chain, and in a timestamp that would otherwise save an expired signer.
sign leaf md5 work/pe32plus.exe md5-digest.exe
key md5inter rsa
issue md5inter "Test MD5-signed Intermediate" root v3_inter -days 7300 -md md5
newca md5inter
key md5leaf rsa
issue md5leaf "Test Signer Under MD5" md5inter v3_codesign -days 3650
cat pki/md5leaf.pem pki/md5inter.pem >pki/md5leaf-chain.pem
sign md5leaf sha256 work/pe32plus.exe md5-chain.exe
sign short sha256 work/pe32plus.exe expired-ts-md5.exe
$PY timestamp expired-ts-md5.exe pkcs9 pki/tsa.pem pki/tsa.key pki/inter.pem work md5

sign otherleaf sha256 work/pe32plus.exe work/primary-untrusted.exe
sign leaf sha256 work/primary-untrusted.exe nested-untrusted-primary.exe -nest
sign leaf sha256 work/pe32plus.exe work/primary-trusted.exe
sign otherleaf sha256 work/primary-trusted.exe nested-untrusted-secondary.exe -nest

printf 'This is a text file, not a program.\n' >text.txt
: >empty.bin

cat >meta.txt <<EOF
generated=$T0
expired_check_time=$((T0 + 2 * 86400))
EOF
rm -rf work pki/*.csr
cd ..
rm -rf "$OUT"
mv "$OUT.tmp" "$OUT"
