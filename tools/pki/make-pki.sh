#!/bin/bash
# Makes a complete throw-away PKI for running the agent against a local cloud:
# a root CA, the device identity, the cloud's server certificate with stapled
# OCSP responses, the update signing chain, and the certificates the refusal
# tests need.
#
#   make-pki.sh [-v] OUTDIR INSTANCE [OPID]
#
# INSTANCE is the cloud instance domain ("zel.localhost" or
# "zel.localhost:18443"); it goes into the device certificate's CN as it is,
# while the server certificate names "*.<INSTANCE without the port>" and the
# update signing certificate (signer.crt, under update-ca.crt) names INSTANCE
# itself, port included, as the device compares it with its own CN.
set -euo pipefail

usage() {
    echo "usage: $(basename "$0") [-v] OUTDIR INSTANCE [OPID]" >&2
    exit 2
}

verbose=0
if [[ "${1:-}" == "-v" ]]; then
    verbose=1
    shift
fi
[[ $# -ge 2 && $# -le 3 ]] || usage

outdir=$1
instance=$2
opid=${3:-FFFFFF0ACC}
host=${instance%%:*}

[[ -n "$instance" && -n "$host" ]] || { echo "make-pki: empty instance" >&2; exit 2; }
[[ "$opid$instance" != */* ]] || { echo "make-pki: '/' not allowed in OPID or INSTANCE" >&2; exit 2; }
command -v openssl >/dev/null || { echo "make-pki: openssl not found" >&2; exit 1; }

mkdir -p "$outdir" || { echo "make-pki: cannot create $outdir" >&2; exit 1; }
work=$(mktemp -d) || { echo "make-pki: cannot create a work directory" >&2; exit 1; }
trap 'rm -rf "$work"' EXIT

log() {
    if [[ $verbose -eq 1 ]]; then
        echo "make-pki: $*"
    fi
}

# Runs openssl quietly; on failure shows what it said and gives up.
ossl() {
    if ! openssl "$@" >"$work/out.txt" 2>&1; then
        echo "make-pki: openssl $1 failed:" >&2
        cat "$work/out.txt" >&2
        exit 1
    fi
}

serial() {
    # Positive 64-bit serial: the first hex digit stays below 8.
    printf '%x%s' $((RANDOM % 7 + 1)) "$(openssl rand -hex 7)"
}

rsa_key() {
    ossl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out "$1"
}

ec_key() {
    ossl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$1"
}

# self_signed_ca KEY CRT CN
self_signed_ca() {
    cat >"$work/ca.ext" <<EOF
[ca]
basicConstraints = critical, CA:true
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid:always
EOF
    rsa_key "$1"
    ossl req -new -x509 -key "$1" -out "$2" -subj "/O=Zel Test/CN=$3" -days 3650 -sha256 \
        -set_serial "0x$(serial)" -config "$work/ca.ext" -extensions ca
}

# issue CA_CRT CA_KEY KEY CRT SUBJECT DAYS EXTENSIONS (the body of an extension section)
issue() {
    local ext="$work/leaf.ext"
    printf '[leaf]\n%s\nsubjectKeyIdentifier = hash\nauthorityKeyIdentifier = keyid:always\n' \
        "$7" >"$ext"
    ossl req -new -key "$3" -out "$work/leaf.csr" -subj "$5" -config /dev/null
    ossl x509 -req -in "$work/leaf.csr" -CA "$1" -CAkey "$2" -out "$4" -days "$6" -sha256 \
        -set_serial "0x$(serial)" -extfile "$ext" -extensions leaf
}

# index_line STATUS CRT: one line of an `openssl ca` database for the certificate
index_line() {
    local enddate serialno subject revoked=""
    enddate=$(openssl x509 -in "$2" -noout -enddate | sed 's/^notAfter=//')
    enddate=$(date -u -d "$enddate" +%y%m%d%H%M%SZ)
    serialno=$(openssl x509 -in "$2" -noout -serial | sed 's/^serial=//')
    subject=$(openssl x509 -in "$2" -noout -subject -nameopt compat | sed 's/^subject=//')
    if [[ "$1" == R ]]; then
        revoked=$(date -u -d '-1 day' +%y%m%d%H%M%SZ)
    fi
    printf '%s\t%s\t%s\t%s\tunknown\t%s\n' "$1" "$enddate" "$revoked" "$serialno" "$subject"
}

# ocsp_response STATUS CA_CRT SIGNER_CRT SIGNER_KEY CRT OUT_DER, STATUS V (good) or R (revoked)
ocsp_response() {
    local expected=good
    [[ "$1" == R ]] && expected=revoked
    index_line "$1" "$5" >"$work/index.txt"
    ossl ocsp -index "$work/index.txt" -CA "$2" -rsigner "$3" -rkey "$4" -issuer "$2" \
        -cert "$5" -ndays 30 -no_nonce -respout "$6" -noverify
    # A serial missing from the index gives a quiet "unknown": check what was signed.
    ossl ocsp -respin "$6" -CAfile "$2" -issuer "$2" -cert "$5" -no_nonce
    if ! grep -q ": $expected\$" "$work/out.txt"; then
        echo "make-pki: OCSP response $6 is not \"$expected\":" >&2
        cat "$work/out.txt" >&2
        exit 1
    fi
}

cd "$outdir"
outdir=$(pwd)

server_ext="basicConstraints = critical, CA:false
keyUsage = critical, digitalSignature, keyEncipherment
extendedKeyUsage = serverAuth"

log "root CA"
self_signed_ca ca.key ca.crt "Zel Test Root CA"

log "device certificate CN=$opid.$instance"
openssl rand -hex 24 >"$work/device.pass"
tr -d '\n' <"$work/device.pass" >device.pass
ossl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -aes-256-cbc \
    -pass "file:$work/device.pass" -out device.key
ossl pkey -in device.key -passin "file:$work/device.pass" -out "$work/device-clear.key"
issue ca.crt ca.key "$work/device-clear.key" device.crt "/CN=$opid.$instance" 3650 \
    "basicConstraints = critical, CA:false
keyUsage = critical, digitalSignature, keyEncipherment
extendedKeyUsage = clientAuth"

log "server certificate *.$host"
ec_key server.key
issue ca.crt ca.key server.key server.crt "/O=Zel Test/CN=*.$host" 825 \
    "$server_ext
subjectAltName = DNS:*.$host"

log "OCSP responder"
ec_key ocsp.key
issue ca.crt ca.key ocsp.key ocsp.crt "/O=Zel Test/CN=Zel Test OCSP Responder" 3650 \
    "basicConstraints = critical, CA:false
keyUsage = critical, digitalSignature
extendedKeyUsage = OCSPSigning"

log "OCSP responses for the server certificate"
ocsp_response V ca.crt ocsp.crt ocsp.key server.crt server.ocsp.der
ocsp_response R ca.crt ocsp.crt ocsp.key server.crt \
    server-revoked.ocsp.der

log "second CA with a server certificate for the same names"
self_signed_ca other-ca.key other-ca.crt "Zel Other Root CA"
ec_key other-server.key
issue other-ca.crt other-ca.key other-server.key other-server.crt "/O=Zel Test/CN=*.$host" 825 \
    "$server_ext
subjectAltName = DNS:*.$host"
ocsp_response V other-ca.crt other-ca.crt other-ca.key \
    other-server.crt other-server.ocsp.der

log "server certificate for another host name"
ec_key wrong-host.key
issue ca.crt ca.key wrong-host.key wrong-host.crt "/O=Zel Test/CN=*.wrong-host.invalid" 825 \
    "$server_ext
subjectAltName = DNS:*.wrong-host.invalid"
ocsp_response V ca.crt ocsp.crt ocsp.key wrong-host.crt \
    wrong-host.ocsp.der

log "update signing chain, signer CN=$instance"
rsa_key update-ca.key
issue ca.crt ca.key update-ca.key update-ca.crt "/O=Zel Test/CN=Zel Test Update CA" 3650 \
    "basicConstraints = critical, CA:true, pathlen:0
keyUsage = critical, keyCertSign, cRLSign"
rsa_key signer.key
issue update-ca.crt update-ca.key signer.key signer.crt "/O=Zel Test/CN=$instance" 825 \
    "basicConstraints = critical, CA:false
keyUsage = critical, digitalSignature"

log "identity and device documents"
b64() { base64 -w0 <"$1"; }
printf '{"key": "%s", "cert": "%s", "trust": "%s", "password": "%s"}\n' \
    "$(b64 device.key)" "$(b64 device.crt)" "$(b64 ca.crt)" "$(cat device.pass)" >identity.json
cat >device.json <<'EOF'
{"id": "5c3f0e2a9b7d4e61a8f2c0d19e4b7a36", "model": "ZT-55Q7", "subModel": "ZT-55Q7-EU", "platform": "GNU/Linux", "brand": "Korvane", "esn": "KRV0055Q7000123", "mac": "02:5A:E1:00:12:34", "swVersion": "4.8.0"}
EOF

chmod 600 ./*.key device.pass identity.json
log "done: $outdir"
