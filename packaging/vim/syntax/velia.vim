" Definitions of jobs and tasks.
if exists("b:current_syntax")
  finish
endif
syn case ignore
syn match  veliaComment /^\s*#.*$/
syn match  veliaFrame /^\s*Job\.Begin\>/
syn match  veliaFrame /^\s*Job\.End\>/
syn match  veliaFrame /^\s*Task\.Begin\>/
syn match  veliaFrame /^\s*Task\.End\>/
syn match  veliaTag /^\s*Job\.Id:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.Name:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.Schedule\.Monthly\.Frequency:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.Schedule\.Monthly\.Day:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.Schedule\.Weekly\.Frequency:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.Schedule\.Weekly\.Days:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.Schedule\.Daily\.Frequency:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.Schedule\.Sequential\.FollowsJob:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.Schedule\.StartDate:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.Schedule\.LastDate:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.Schedule\.FirstStartTime:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.Schedule\.StartTimeRestartFrequency:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.Schedule\.LastStartTime:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.DeleteWhenCompleted:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.Task:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.Args:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.NotifyInfo\.OnEvents:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.NotifyInfo\.Using:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.NotifyInfo\.Recipients:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.RunCntl\.Recipient:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.RunCntl\.More:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.RunCntl\.MaxRunTime:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.RunCntl\.Name:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.RunCntl\.Description:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.RunCntl\.Arg:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.RunCntl\.Day:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.RunCntl\.FirstStartTime:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.RunCntl\.StartTimeRestartFrequency:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.RunCntl\.LastStartTime:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.Created:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.LastModified:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.Predefined:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.RunningStatus\.ProcessId:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.RunningStatus\.Started:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.NextRunTime:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.LastCompletionInfo\.ProcessId:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.LastCompletionInfo\.Started:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.LastCompletionInfo\.Ended:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Job\.LastCompletionInfo\.ExitStatus:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Task\.Id:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Task\.Name:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Task\.Pathname:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Task\.UIInfo:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaTag /^\s*Task\.RunAsCredentials:\(\s\|$\)\@=/ nextgroup=veliaString,veliaValue skipwhite
syn match  veliaString /"[^"]*"/ contained
syn match  veliaValue /\<\(TRUE\|FALSE\|StartDate\)\>\|<now>\|@-\?\d\+\|\d\d\d\d-\d\d-\d\d\|\d\+:\d\+:\d\+\|\<\d\+\>/ contained
syn region veliaText matchgroup=veliaTag start=/^\s*Job\.Description\.Begin:.*$/ end=/^\s*Job\.Description\.End:.*$/
syn region veliaText matchgroup=veliaTag start=/^\s*Job\.LastCompletionInfo\.Messages\.Begin:.*$/ end=/^\s*Job\.LastCompletionInfo\.Messages\.End:.*$/
hi def link veliaComment Comment
hi def link veliaFrame Statement
hi def link veliaTag Identifier
hi def link veliaString String
hi def link veliaValue Constant
hi def link veliaText String
let b:current_syntax = "velia"
