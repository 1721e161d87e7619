#!/bin/sh
# One of those who exchange values of every type, with the command line: exchange.sh set|get WRITER SDCONFIG
while IFS='|' read -r name store value; do
    if [ "$1" = set ]; then
        "$3" $store set "exchange.$2.$name" "$value" || exit 1
    else
        printf '%s %s\n' "$name" "$("$3" $store get "exchange.$2.$name" 2>/dev/null)"
    fi
done <<'END'
bool||true
short||65535
int||-9223372036854775808
number||-1e+300
string|secure|grün € 𝄞 "x"
plain||
enum|secure|grün
duration|secure|30d
size||9223372036854775807B
url|secure|https://münchen.example/ä?b=%20
path|secure|/srv/größe
color||#ff000080
json|secure|{"ä":[1,null,"ö"]}
strings|secure|["","ü\n"]
ints||[-9223372036854775808,9223372036854775807]
durations|secure|["0s","1d1ms"]
enums||["two","one"]
END
