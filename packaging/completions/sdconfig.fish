# Completion of sdconfig for fish: commands, options, the keys that can be read in the data folder, and what is described
# of keys and their values.

# The command so far and the number of its arguments: "secure get:1".
function __sdconfig_place
    set -l command
    set -l number 0
    set -l skip no
    for word in (commandline -opc)[2..]
        if test $skip = yes
            set skip no
            continue
        end
        switch $word
            case --data-dir --product-dir --policy-dir --keys-dir --backup --name --exec --default --user --against --since \
                    --by --head
                set skip yes
            case '-*'
            case '*'
                switch "$command"
                    case ''
                        set command $word
                    case secure key keys policy
                        set command "$command $word"
                    case log
                        if test $number = 0; and contains -- $word verify head
                            set command "$command $word"
                        else
                            set number (math $number + 1)
                        end
                    case '*'
                        set number (math $number + 1)
                end
        end
    end
    echo "$command:$number"
end

function __sdconfig_values # those that the key, the word before the cursor, may have
    sdconfig describe --values -- (commandline -opc)[-1] 2>/dev/null
end

function __sdconfig_at # PLACE...: whether the cursor is at one of them
    contains -- (__sdconfig_place) $argv
end

function __sdconfig_in # COMMAND...: whether it is one of them, at whatever argument
    contains -- (string replace -r ':\d+$' '' -- (__sdconfig_place)) $argv
end

function __sdconfig_keys # KIND: of the lines of "sdconfig list" that match it
    sdconfig list 2>/dev/null | string replace -rf "^($argv[1])\t" '' | sort -u
end

complete -c sdconfig -f
complete -c sdconfig -l json -d 'Print one JSON object on one line'
complete -c sdconfig -s v -l verbose -d 'Show the log of the library on standard error'
complete -c sdconfig -l user -x -a '(__fish_complete_users)' -d 'Act as this user'
complete -c sdconfig -s h -l help -d 'Print the help'
complete -c sdconfig -n '__sdconfig_in ""' -l version -d 'Print the version'

complete -c sdconfig -n '__sdconfig_at ":0"' -a get -d 'Print a property'
complete -c sdconfig -n '__sdconfig_at ":0"' -a set -d 'Set a property, until the service stops'
complete -c sdconfig -n '__sdconfig_at ":0"' -a delete -d 'Delete a property'
complete -c sdconfig -n '__sdconfig_at ":0"' -a secure -d 'Values that are sealed at rest'
complete -c sdconfig -n '__sdconfig_at ":0"' -a key -d 'The keys that values and policies are sealed with'
complete -c sdconfig -n '__sdconfig_at ":0"' -a policy -d 'Policies'
complete -c sdconfig -n '__sdconfig_at ":0"' -a explain -d 'Tell where the value of a key comes from'
complete -c sdconfig -n '__sdconfig_at ":0"' -a describe -d 'Tell what keys are for'
complete -c sdconfig -n '__sdconfig_at ":0"' -a keys -d 'Descriptions of keys'
complete -c sdconfig -n '__sdconfig_at ":0"' -a log -d 'Tell what was done to which key, when and by whom'
complete -c sdconfig -n '__sdconfig_at ":0"' -a watch -d 'Print changes of keys as they happen'
complete -c sdconfig -n '__sdconfig_at ":0"' -a list -d 'Print the keys of secure values and policies'
complete -c sdconfig -n '__sdconfig_at ":0"' -a upgrade -d 'Carry the database of an earlier version over'
complete -c sdconfig -n '__sdconfig_at ":0"' -a doctor -d 'Tell what is wrong with the service'
complete -c sdconfig -n '__sdconfig_at ":0"' -a report -d 'Write a page that tells what each key is, and why'
complete -c sdconfig -n '__sdconfig_at ":0"' -a check -d 'Look for faults in the data folder'
complete -c sdconfig -n '__sdconfig_at ":0"' -a backup -d 'Write the data folder to a file'
complete -c sdconfig -n '__sdconfig_at ":0"' -a restore -d 'Put a backup in the place of a data folder'
complete -c sdconfig -n '__sdconfig_at ":0"' -a const -d 'Print a constant of the service'
complete -c sdconfig -n '__sdconfig_at ":0"' -a sign -d 'Print the signature of a text'
complete -c sdconfig -n '__sdconfig_at ":0"' -a verify -d 'Tell whether a signature fits a text'
complete -c sdconfig -n '__sdconfig_at ":0"' -a status -d 'Tell whether the service is there'
complete -c sdconfig -n '__sdconfig_at ":0"' -a help -d 'Print the help of a command'

complete -c sdconfig -n '__sdconfig_at secure:0' -a get -d 'Print a secure value'
complete -c sdconfig -n '__sdconfig_at secure:0' -a set -d 'Store a secure value'
complete -c sdconfig -n '__sdconfig_at secure:0' -a delete -d 'Delete a secure value'
complete -c sdconfig -n '__sdconfig_at secure:0' -a exec -d 'Run a program with secure values in its environment'

complete -c sdconfig -n '__sdconfig_at key:0' -a list -d 'Print the keys'
complete -c sdconfig -n '__sdconfig_at key:0' -a rotate -d 'Make a new key that seals'
complete -c sdconfig -n '__sdconfig_at key:0' -a disable -d 'Let a key open nothing'
complete -c sdconfig -n '__sdconfig_at key:0' -a enable -d 'Let a disabled key open again'
complete -c sdconfig -n '__sdconfig_at key:0' -a prune -d 'Remove the keys that nothing is sealed with'
complete -c sdconfig -n '__sdconfig_at key:0' -a slots -d 'Print the slots that open the key ring'
complete -c sdconfig -n '__sdconfig_at key:0' -a protect -d 'Wrap the key ring, or make a slot'
complete -c sdconfig -n '__sdconfig_at key:0' -a unprotect -d 'Remove a slot, or the wrap'
complete -c sdconfig -n '__sdconfig_at key:0' -a unlock -d 'Open the key ring by its passphrase'
complete -c sdconfig -n '__sdconfig_at key:0' -a recover -d 'Open the key ring by its recovery code'

complete -c sdconfig -n '__sdconfig_at log:0' -a verify -d 'Find whether the trail is as it was written'
complete -c sdconfig -n '__sdconfig_at log:0' -a head -d 'Print what attests the trail up to now'

complete -c sdconfig -n '__sdconfig_at keys:0' -a lint -d 'Find all that is wrong with files of descriptions'

complete -c sdconfig -n '__sdconfig_at policy:0' -a set -d 'Set a policy'
complete -c sdconfig -n '__sdconfig_at policy:0' -a get -d 'Print the value in force'
complete -c sdconfig -n '__sdconfig_at policy:0' -a delete -d 'Delete a policy'
complete -c sdconfig -n '__sdconfig_at policy:0' -a list -d 'Print the policies'
complete -c sdconfig -n '__sdconfig_at policy:0' -a strong -d 'Tell whether a policy overrides the local value'
complete -c sdconfig -n '__sdconfig_at policy:0' -a clear -d 'Delete all policies'
complete -c sdconfig -n '__sdconfig_at policy:0' -a export -d 'Write the stored policies to a file'
complete -c sdconfig -n '__sdconfig_at policy:0' -a apply -d 'Set the policies of a file'
complete -c sdconfig -n '__sdconfig_at policy:0' -a status -d 'Tell which files of policies of the machine were read'
complete -c sdconfig -n '__sdconfig_at policy:0' -a lint -d 'Find all that is wrong with files of policies'
complete -c sdconfig -n '__sdconfig_at policy:0' -a install -d 'Make the policies of a file those of the machine'
complete -c sdconfig -n '__sdconfig_at policy:0' -a remove -d 'Remove a file of policies of the machine'

complete -c sdconfig -n '__sdconfig_at "secure set:0" "secure delete:0"; or __sdconfig_in "secure get"' \
    -a '(__sdconfig_keys secure)'
complete -c sdconfig -n '__sdconfig_at "policy set:0" "policy get:0" "policy delete:0" "policy strong:0"' \
    -a '(__sdconfig_keys policy)'
complete -c sdconfig -n '__sdconfig_at "key protect:0" "key unprotect:0"' -a 'host keyring passphrase'
complete -c sdconfig -n '__sdconfig_at "key protect:0"' -a recovery
complete -c sdconfig -n '__sdconfig_at "key unprotect:0"' -a all
complete -c sdconfig -n '__sdconfig_at "key disable:0" "key enable:0"' -a '(sdconfig key list 2>/dev/null | cut -f 1)'
complete -c sdconfig -n '__sdconfig_at set:0 delete:0 describe:0 explain:0 "secure set:0" "policy set:0"; or __sdconfig_in get' \
    -a '(sdconfig describe --names 2>/dev/null)'
complete -c sdconfig -n '__sdconfig_at set:1 "secure set:1" "policy set:1"' -a '(__sdconfig_values)'
complete -c sdconfig -n '__sdconfig_in "secure exec"' -a '(__sdconfig_keys secure | string replace -r \'$\' =)'
complete -c sdconfig -n '__sdconfig_at explain:0; or __sdconfig_in log watch list' -a '(__sdconfig_keys "secure|policy")'
complete -c sdconfig -n '__sdconfig_at "policy export:0" "policy apply:0" "policy install:0" backup:0 restore:0' -F
complete -c sdconfig -n '__sdconfig_at upgrade:0 check:0 backup:1 restore:1' -a '(__fish_complete_directories)'

complete -c sdconfig -n '__sdconfig_in check' -l digest -d 'Print a digest of all that the folder holds'
complete -c sdconfig -n '__sdconfig_in check' -l against -x -d 'Compare with a digest'
complete -c sdconfig -n '__sdconfig_in get' -l local -d 'Read the build.prop files in this process'
complete -c sdconfig -n '__sdconfig_in get "secure get"' -l default -x -d 'Print it instead of what is unset'
complete -c sdconfig -n '__sdconfig_in get explain report' -l product-dir -xa '(__fish_complete_directories)' \
    -d 'The data folder of the product'
complete -c sdconfig -n '__sdconfig_in explain list doctor report log "log verify" "log head" "key list" "key slots" "policy list" "policy export" "policy apply"' \
    -l data-dir \
    -xa '(__fish_complete_directories)' -d 'The data folder of the service'
complete -c sdconfig -n '__sdconfig_in report' -s o -l output -rF -d 'Write the page to this file'
complete -c sdconfig -n '__sdconfig_in report' -l with -rF -d 'Tell what would change with these policies'
complete -c sdconfig -n '__sdconfig_in explain list report "policy apply"' -l show -d 'Show values, which can be secrets'
complete -c sdconfig -n '__sdconfig_in "key prune" "key protect" "key unprotect" "policy clear" "policy apply"' -l yes -d 'Do not ask'
complete -c sdconfig -n '__sdconfig_in "key rotate"' -l reseal -d 'Seal everything anew'
complete -c sdconfig -n '__sdconfig_in "policy apply"' -l prune -d 'Delete the policies that the file does not name'
complete -c sdconfig -n '__sdconfig_in "policy apply" "policy install" "policy remove"' -l policy-dir \
    -xa '(__fish_complete_directories)' -d 'A folder of policies'
complete -c sdconfig -n '__sdconfig_in "policy apply"' -l backup -rF -d 'Try them on the data of this backup'
complete -c sdconfig -n '__sdconfig_in "policy lint" "keys lint"' -F
complete -c sdconfig -n '__sdconfig_in set "secure set" "policy set" "policy apply" "policy lint" "policy install"' \
    -l unchecked -d 'Go on whatever the descriptions of keys say'
complete -c sdconfig -n '__sdconfig_in set "secure set" "policy set" "policy apply" "policy lint" "policy install" \
        "keys lint" describe explain list report' -l keys-dir -xa '(__fish_complete_directories)' -d 'A folder of descriptions'
complete -c sdconfig -n '__sdconfig_in list' -l described -d 'What is described and unset, too'
complete -c sdconfig -n '__sdconfig_in describe' -l names -d 'Print the keys alone'
complete -c sdconfig -n '__sdconfig_in describe' -l values -d 'Print the values that the key may have'
complete -c sdconfig -n '__sdconfig_in "policy export"' -l machine -d 'The policies of the machine, too'
complete -c sdconfig -n '__sdconfig_in "policy lint" "keys lint"' -l strict -d 'Take warnings for faults'
complete -c sdconfig -n '__sdconfig_in "policy install"' -l name -x -d 'Its name there'
complete -c sdconfig -n '__sdconfig_at "policy remove:0"' \
    -a '(for file in /etc/sdconfig/policies.d/*.json; basename $file .json; end)'
complete -c sdconfig -n '__sdconfig_in "policy apply" "policy install" "policy remove" upgrade' -l dry-run -d 'Change nothing; print what would change'
complete -c sdconfig -n '__sdconfig_in upgrade' -l force -d 'Copy, whatever the version'
complete -c sdconfig -n '__sdconfig_in backup restore' -l force -d 'Replace what is there'
complete -c sdconfig -n '__sdconfig_in backup restore' -l without-keys -d 'Leave the key ring out'
complete -c sdconfig -n '__sdconfig_in log' -l since -xa '15m 2h 2d 3w' -d 'Only from then on'
complete -c sdconfig -n '__sdconfig_in log' -l by -x -d 'Only by this program, unit or user'
complete -c sdconfig -n '__sdconfig_in log' -l follow -d 'Go on with those to come'
complete -c sdconfig -n '__sdconfig_in log' -l reverse -d 'Print the oldest first'
complete -c sdconfig -n '__sdconfig_in "log verify"' -l head -x -d 'Compare with a head'
complete -c sdconfig -n '__sdconfig_in watch' -l exec -x -d 'Run a command for each change'
