@echo off
rem First-logon script of an unattended install. Arguments:
rem   noInstallTools  do not run the guest tools upgrader
rem   noautoreboot    do not restart when the script is done
setlocal
set INSTALL_TOOLS=1
set REBOOT=1
:args
if "%~1"=="" goto run
if /i "%~1"=="noInstallTools" set INSTALL_TOOLS=0
if /i "%~1"=="noautoreboot" set REBOOT=0
shift
goto args
:run
if "%INSTALL_TOOLS%"=="1" if exist A:\upgrader.exe start /wait A:\upgrader.exe /s
if "%REBOOT%"=="1" shutdown -r -t 5
endlocal
