#!/usr/bin/env bash
# Signs a driver image for test-signing mode, with a certificate that is made for this one signature: its private key
# never leaves a temporary folder and is gone afterwards, so that a machine which trusts the certificate need not fear
# what else it might sign.
#
# usage: sign_test.sh IMAGE SIGNED CERTIFICATE
#   IMAGE        what is signed; stays as it is
#   SIGNED       written: the signed copy
#   CERTIFICATE  written: the certificate, in the form that Windows imports (DER)
set -euo pipefail

[ $# -eq 3 ] || { echo "usage: $0 IMAGE SIGNED CERTIFICATE" >&2; exit 2; }
image=$1 signed=$2 certificate=$3

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
umask 077

quietly()
{
    "$@" > "$work/log" 2>&1 || { cat "$work/log" >&2; echo "sign_test.sh: $1 failed" >&2; return 1; }
}

# A configuration of its own, since the machine's would add extensions of a certificate authority.
cat > "$work/request" <<'END'
[req]
prompt = no
distinguished_name = name
x509_extensions = extensions
[name]
CN = Tarnveil TEST certificate - not for release
[extensions]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = critical, codeSigning
subjectKeyIdentifier = hash
END

# Windows 7 takes no other key than RSA for a driver.
quietly openssl req -x509 -config "$work/request" -newkey rsa:2048 -sha256 -nodes -days 365 \
    -keyout "$work/key.pem" -out "$work/certificate.pem"

# osslsigncode writes no file over another.
rm -f "$signed"
quietly osslsigncode sign -h sha256 -certs "$work/certificate.pem" -key "$work/key.pem" \
    -n "Tarnveil, test-signed" -in "$image" -out "$signed"
quietly osslsigncode verify -CAfile "$work/certificate.pem" -in "$signed"
openssl x509 -in "$work/certificate.pem" -outform DER -out "$certificate"
chmod 644 "$signed" "$certificate"
