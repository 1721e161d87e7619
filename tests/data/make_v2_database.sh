#!/bin/sh
# Writes a database as version 2 of the store left it, with nothing but the sqlite3 and openssl commands.
#     make_v2_database.sh FILE KEY IV        key and initialisation vector of the legacy cipher, in hexadecimal
set -eu
file=$1 key=$2 iv=$3

table() {
    echo "CREATE TABLE $1(id INTEGER PRIMARY KEY AUTOINCREMENT,key TEXT COLLATE NOCASE UNIQUE ON CONFLICT FAIL,value TEXT );"
}
row() { echo "INSERT INTO $1(key, value) VALUES('$2', $3);"; }
secure() { # NAME VALUE
    number=0
    printf '%s\n' "$2" | fold -w 32 | while IFS= read -r piece; do
        text=$(printf %s "$piece" | openssl enc -aes-256-cbc -K "$key" -iv "$iv" -base64)
        row secure "$1@@$number" "'$text' || char(10)"
        number=$((number + 1))
    done
}

{
    echo "PRAGMA journal_mode = WAL; BEGIN;"
    for name in dbinfor config secure; do table "$name"; done
    row dbinfor dbVersion "'2'"
    row config sd.ui.theme "'dark'"
    row config empty "''"
    row config velmar.client.id "'client-4711'"
    secure mail.password "$(printf '%070d' 7)"
    secure long "$(printf '%03000d' 3)"
    secure token "tok"
    secure user@host "cut at its first @"
    row secure without-at "'any'"
    row secure hollow@@0 "''"
    echo "COMMIT;"
} | sqlite3 "$file" >/dev/null
