@echo off
rem uninstall.cmd - takes the driver from all keyboards and out of the driver store, in whatever version it is there.
rem Exit status: 0 good or nothing to do, 3010 good after a restart, otherwise that of the pnputil that failed.
setlocal
set "PNPUTIL=%SystemRoot%\System32\pnputil.exe"
if exist "%SystemRoot%\Sysnative\pnputil.exe" set "PNPUTIL=%SystemRoot%\Sysnative\pnputil.exe"
if not exist "%PNPUTIL%" goto old
set "STATUS=0"
set "FOUND="

rem The store keeps each INF under a name of its own; ours are told by their ExtensionId.
pushd "%SystemRoot%\INF"
for %%F in (oem*.inf) do call :look %%F
popd
if not defined FOUND (
    echo uninstall: the driver is not installed.
    exit /b 0
)
if "%STATUS%"=="0" echo uninstall: done. A keyboard that still uses the driver stops when it is plugged in again.
if "%STATUS%"=="3010" echo uninstall: done. Restart Windows to take the driver from the keyboards that use it.
exit /b %STATUS%

:old
echo uninstall: there is no %PNPUTIL%. The driver needs Windows 10, version 1903 or later.
exit /b 2

:look
"%SystemRoot%\System32\find.exe" "{4f0c5a86-6d2b-4a5e-8f43-91c7be3d20f8}" %1 >nul 2>nul
if not "%ERRORLEVEL%"=="0" exit /b 0
set "FOUND=1"
"%PNPUTIL%" /delete-driver %1 /uninstall
set "CODE=%ERRORLEVEL%"
if "%CODE%"=="0" exit /b 0
if "%CODE%"=="3010" (
    if "%STATUS%"=="0" set "STATUS=3010"
    exit /b 0
)
set "STATUS=%CODE%"
if "%CODE%"=="5" (
    echo uninstall: only an administrator can do this. Open a command prompt with "Run as administrator" and start it there.
    exit /b 0
)
echo uninstall: pnputil ended with %CODE% for %1. Unplug the keyboards that the driver serves and try again;
echo            the reason stands at the end of %SystemRoot%\INF\setupapi.dev.log.
exit /b 0
