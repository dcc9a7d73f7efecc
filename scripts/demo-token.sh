#!/usr/bin/env bash
# A throwaway SoftHSM2 token for the demo and the dialog tests, filled with
# standard tools: certtool makes a small CA and four certificates, p11tool
# writes them and three private keys to the token.
#
#     bash scripts/demo-token.sh DIR
#
# DIR (empty or new) gets softhsm2.conf and the token "Kavori Demo" (user PIN
# 123456, SO PIN 12345678); use it with SOFTHSM2_CONF=DIR/softhsm2.conf.
# Each certificate's CKA_ID is its subject key identifier.  One line per
# certificate, "<CKA_ID in hex><TAB><label>", goes to stdout and to
# DIR/certificates, in the order the certificate dialog lists them: the
# valid ones by label, then the expired one.  Exit code 77 (a skip to the
# tests) when a tool is missing.
set -euo pipefail
dir=$(realpath "$1")
module=/usr/lib/softhsm/libsofthsm2.so
label="Kavori Demo"
user_pin=123456
so_pin=12345678

for tool in softhsm2-util certtool p11tool openssl; do
  command -v "$tool" >/dev/null || { echo "$tool is missing (bash scripts/setup.sh installs it)" >&2; exit 77; }
done
[ -e "$module" ] || { echo "$module is missing (package softhsm2)" >&2; exit 77; }

mkdir -p "$dir/tokens" "$dir/made"
export SOFTHSM2_CONF="$dir/softhsm2.conf"
cat > "$SOFTHSM2_CONF" <<EOF
directories.tokendir = $dir/tokens
objectstore.backend = file
log.level = ERROR
EOF
softhsm2-util --init-token --free --label "$label" --pin "$user_pin" --so-pin "$so_pin" >/dev/null

made="$dir/made"
# key NAME: an ECDSA P-256 key, or RSA for the encryption certificate (an EC
# key would only agree on keys, and certtool adds signing to that).
key() {
  local type=(--key-type ecdsa --curve secp256r1)
  [ "$1" = crypt ] && type=(--key-type rsa --bits 2048)
  certtool --generate-privkey "${type[@]}" --outfile "$made/$1.key" >/dev/null 2>&1
}
key ca
printf 'cn = "Kavori Demo CA"\norganization = "Kavori Demo"\nca\ncert_signing_key\nexpiration_days = 3650\n' \
  > "$made/ca.tmpl"
certtool --generate-self-signed --load-privkey "$made/ca.key" --template "$made/ca.tmpl" \
  --outfile "$made/ca.pem" >/dev/null 2>&1

# write LABEL ID P11TOOL-OPTIONS...: one object to the token.
write() {
  local object_label=$1 id=$2
  shift 2
  GNUTLS_PIN=$user_pin p11tool --provider "$module" --login --write "$@" --label "$object_label" --id "$id" \
    "pkcs11:token=Kavori%20Demo" >/dev/null 2>&1
}

# certificate NAME LABEL WITH-KEY TEMPLATE-LINES...: one certificate for
# "Alice Example", issued by the CA; written to the token with its private
# key when WITH-KEY is "key".
certificate() {
  local name=$1 cert_label=$2 with_key=$3
  shift 3
  key "$name"
  printf 'cn = "Alice Example"\norganization = "Kavori Demo"\n' > "$made/$name.tmpl"
  printf '%s\n' "$@" >> "$made/$name.tmpl"
  certtool --generate-certificate --load-privkey "$made/$name.key" --load-ca-certificate "$made/ca.pem" \
    --load-ca-privkey "$made/ca.key" --template "$made/$name.tmpl" --outfile "$made/$name.pem" >/dev/null 2>&1
  local id
  id=$(openssl x509 -in "$made/$name.pem" -noout -ext subjectKeyIdentifier | tail -n1 | tr -d ' :' | tr 'A-F' 'a-f')
  # Certificates are public objects, as on a real token; keys stay private.
  write "$cert_label" "$id" --no-mark-private --load-certificate "$made/$name.pem"
  if [ "$with_key" = key ]; then write "$cert_label" "$id" --load-privkey "$made/$name.key"; fi
  printf '%s\t%s\n' "$id" "$cert_label" >> "$dir/certificates"
}

: > "$dir/certificates"
certificate auth "Authentication" key signing_key tls_www_client email_protection_key \
  "expiration_days = 730"
certificate sign "Digital signature" key signing_key non_repudiation "expiration_days = 730"
certificate crypt "Encryption" key encryption_key data_encipherment email_protection_key "expiration_days = 730"
certificate old "Authentication 2019" none signing_key tls_www_client \
  'activation_date = "2019-01-01 00:00:00"' 'expiration_date = "2020-01-01 00:00:00"'
cat "$dir/certificates"
