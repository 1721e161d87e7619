# Completion of sdconfigd for fish: its options, and what they take.

complete -c sdconfigd -f
complete -c sdconfigd -l data-dir -xa '(__fish_complete_directories)' -d 'The folder of the databases and the key ring'
complete -c sdconfigd -l product-dir -xa '(__fish_complete_directories)' -d 'The data folder of the product'
complete -c sdconfigd -l constants -rF -d 'Constants to answer'
complete -c sdconfigd -l policy-dir -xa '(__fish_complete_directories)' -d 'A folder of policies in place of the standard ones'
complete -c sdconfigd -l seal-socket -rF -d 'The socket of the seal service of root'
complete -c sdconfigd -l no-audit -d 'Keep no trail of what is changed'
complete -c sdconfigd -l audit-reads -x -d 'Keys whose readings are in the trail, too'
complete -c sdconfigd -l audit-size -x -d 'MiB from which on the trail goes on in another file'
complete -c sdconfigd -l audit-keep -x -d 'Files of the trail besides the current one'
complete -c sdconfigd -l log-level -xa '5\tinformation 6\twarnings 7\terrors 8\tnone' \
    -d 'The least level of log lines to write'
complete -c sdconfigd -l log-secrets -d 'Show the values that log lines name'
complete -c sdconfigd -l allow-dumps -d 'Leave core dumps as the system has them'
complete -c sdconfigd -l upgrade -d 'Carry the database of an earlier version over before serving'
complete -c sdconfigd -l rotate-key -d 'Add a key to the key ring, and end'
complete -c sdconfigd -l version -d 'Print the version'
complete -c sdconfigd -s h -l help -d 'Print the help'
