#!/usr/bin/env bash
# Makes the test certificates of tests/asn1 with the openssl command-line tool, as DER files:
#   ca.der        self-signed v3 CA: basicConstraints critical CA:TRUE pathlen 3, keyUsage
#                 critical keyCertSign cRLSign, subjectKeyIdentifier
#   leaf.der      v3 end entity issued by ca.der: basicConstraints CA:FALSE, keyUsage critical
#                 digitalSignature nonRepudiation, extKeyUsage, subjectAltName, key identifiers;
#                 UTF8String subject holding every escaped character, a line feed, leading and
#                 trailing spaces and a character outside the BMP
#   v1.der        version 1 (no extensions), notAfter as GeneralizedTime (2055)
#   multi.der     multi-valued RDN (CN + serialNumber + emailAddress), DC components; basic
#                 constraints CA:TRUE with a keyUsage lacking keyCertSign
#   strings.der   v3 without extensions; TeletexString (bytes above 0x7F), BMPString,
#                 UniversalString (outside the BMP) values and an IA5String title; attribute types
#                 outside the DN table (UniversalString, PrintableString, IA5String) and one in it
#                 without a text syntax (postalAddress)
# Validity is fixed (2024-01-01 to 2034-01-01) and serial numbers count up from C0FFEE01, so only
# keys and signatures change from run to run. The tests expect the texts of the committed files.
#
# Usage: make-fixtures.sh [OUTDIR]   (default: the directory of this script)
set -euo pipefail
out=$(cd "${1:-$(dirname "$0")}" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

cat >ca.cnf <<'CNF'
oid_section = oids
[oids]
testAttr = 1.2.3.4.5
otherAttr = 1.3.6.1.4.1.55555.1
[ca]
default_ca = cadef
[cadef]
database = index.txt
new_certs_dir = .
serial = serial
default_md = sha256
policy = anything
unique_subject = no
[anything]
[req]
distinguished_name = dn
prompt = no
[dn]
CN = unused
[ext_ca]
basicConstraints = critical, CA:TRUE, pathlen:3
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[ext_leaf]
basicConstraints = CA:FALSE
keyUsage = critical, digitalSignature, nonRepudiation
extendedKeyUsage = clientAuth, emailProtection
subjectAltName = email:alice@example.com
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
[ext_multi]
basicConstraints = critical, CA:TRUE
keyUsage = digitalSignature
CNF
touch index.txt
echo C0FFEE01 >serial
openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out key.pem 2>/dev/null

# issue NAME SUBJECT STRING_MASK [openssl ca options...]
issue() {
  local name=$1 subj=$2 mask=$3
  shift 3
  sed "s/^\[req\]$/[req]\nstring_mask = $mask/" ca.cnf >req.cnf
  openssl req -new -utf8 -config req.cnf -key key.pem -subj "$subj" -out "$name.csr"
  openssl ca -batch -config ca.cnf -preserveDN -utf8 -notext -keyfile key.pem \
    -in "$name.csr" -out "$name.pem" "$@" 2>ca.log || { cat ca.log; exit 1; }
  openssl x509 -in "$name.pem" -outform DER -out "$out/$name.der"
}

dates=(-startdate 20240101000000Z -enddate 20340101000000Z)
issue ca "/C=ES/O=Example/CN=Test CA" utf8only -selfsign -extensions ext_ca "${dates[@]}"
cp ca.pem cacert.pem
issue leaf $'/C=ES/O= lead and trail /OU=Smith, John\\+a=b"q"<x>#h;\\\\back/CN=multi\nline \xc3\xa9\xf0\x9f\x98\x80' \
  utf8only -cert cacert.pem -extensions ext_leaf "${dates[@]}"
issue v1 "/C=ES/CN=v1 cert" utf8only -cert cacert.pem -startdate 20240101000000Z -enddate 20550101000000Z
issue multi "/DC=com/DC=example/C=ES/O=Example/CN=Alice+serialNumber=1234+emailAddress=alice@example.com" \
  default -cert cacert.pem -extensions ext_multi "${dates[@]}"

# strings.der is assembled with "openssl asn1parse -genconf" and signed with "openssl dgst", since
# openssl req never writes UniversalString values. It is a v3 certificate without extensions.
pub=$(openssl pkey -in key.pem -pubout -outform DER | tail -c 65 | od -An -tx1 | tr -d ' \n')
rdn_n=0
# rdn "TYPE,VALUE" ["TYPE,VALUE"...]: one RDN of the subject with one member per argument.
rdn() {
  rdn_n=$((rdn_n + 1))
  echo "r$rdn_n = SET:rdn$rdn_n" >>subject.sec
  echo "[rdn$rdn_n]" >>members.sec
  local i=0 m
  for m in "$@"; do
    i=$((i + 1))
    echo "m$i = SEQUENCE:atv${rdn_n}_$i" >>members.sec
    printf '[atv%s_%s]\ntype = OID:%s\nvalue = %s\n' "$rdn_n" "$i" "${m%%,*}" "${m#*,}" >>atvs.sec
  done
}
: >subject.sec
: >members.sec
: >atvs.sec
rdn "countryName,PRINTABLESTRING:DE"
rdn "localityName,FORMAT:UTF8,T61STRING:Stra"$'\xc3\x9f'"e"
rdn "organizationName,FORMAT:UTF8,BMPSTRING:"$'\xd0\x96\xd1\x83\xd0\xba\xd0\xbe\xd0\xb2'
rdn "commonName,FORMAT:UTF8,T61STRING:M"$'\xc3\xbc'"ller"
rdn "streetAddress,FORMAT:UTF8,UNIVERSALSTRING:"$'\xf0\x9f\x98\x80x'
rdn "title,IA5STRING:Dr."
rdn "1.2.3.4.5,FORMAT:UTF8,UNIVERSALSTRING:"$'\xf0\x9f\x98\x80'
rdn "1.3.6.1.4.1.55555.1,PRINTABLESTRING:plain"
rdn "postalAddress,SEQUENCE:postal"
rdn "organizationalUnitName,UTF8String:Unit" "1.2.3.4.6,IA5STRING:a"
{
  cat <<CNF
[tbs]
version = EXPLICIT:0,INTEGER:2
serial = INTEGER:0xC0FFEE10
signature = SEQUENCE:sigalg
issuer = SEQUENCE:issuer
validity = SEQUENCE:validity
subject = SEQUENCE:subject
spki = SEQUENCE:spki
[sigalg]
algorithm = OID:ecdsa-with-SHA256
[issuer]
c = SET:ic
o = SET:io
cn = SET:icn
[ic]
atv = SEQUENCE:ic_atv
[ic_atv]
type = OID:countryName
value = PRINTABLESTRING:ES
[io]
atv = SEQUENCE:io_atv
[io_atv]
type = OID:organizationName
value = UTF8String:Example
[icn]
atv = SEQUENCE:icn_atv
[icn_atv]
type = OID:commonName
value = UTF8String:Test CA
[validity]
notBefore = UTCTIME:240101000000Z
notAfter = UTCTIME:340101000000Z
[spki]
algorithm = SEQUENCE:ecalg
key = FORMAT:HEX,BITSTRING:$pub
[ecalg]
algorithm = OID:id-ecPublicKey
curve = OID:prime256v1
[postal]
line1 = UTF8String:1 Main St
line2 = UTF8String:Town
[subject]
CNF
  cat subject.sec members.sec atvs.sec
} >sections.cnf
{ echo "asn1 = SEQUENCE:tbs"; cat sections.cnf; } >tbs.cnf
openssl asn1parse -genconf tbs.cnf -out tbs.der -noout
openssl dgst -sha256 -sign key.pem -out sig.bin tbs.der
sig=$(od -An -tx1 sig.bin | tr -d ' \n')
{ printf 'asn1 = SEQUENCE:cert\n[cert]\ntbs = SEQUENCE:tbs\nalg = SEQUENCE:sigalg\n'
  printf 'sig = FORMAT:HEX,BITSTRING:%s\n' "$sig"; cat sections.cnf; } >cert.cnf
openssl asn1parse -genconf cert.cnf -out "$out/strings.der" -noout

# Every certificate made here verifies against the CA.
for f in leaf v1 multi strings; do
  openssl x509 -inform DER -in "$out/$f.der" -out check.pem
  openssl verify -CAfile cacert.pem check.pem >/dev/null
done
